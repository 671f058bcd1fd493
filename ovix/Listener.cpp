#include "ovix/Listener.h"

#include <cerrno>

namespace ovix {

class ListenerCore {
 public:
  std::string name;
};

Listener::Listener(std::shared_ptr<ListenerCore> core) : core_(std::move(core)) {}
Listener::~Listener() = default;
platform::Result<std::shared_ptr<Listener>> Listener::create(std::string_view) {
  return platform::Error::posix(ENOSYS, "not yet");
}
void Listener::setEventHandler(EventHandler) {}
void Listener::resume() {}
void Listener::cancel() {}
const std::string& Listener::serviceName() const { return core_->name; }
const std::string& Listener::socketPath() const { return core_->name; }

}  // namespace ovix
