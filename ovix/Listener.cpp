#include "ovix/Listener.h"

#include "ovix/ListenerCore.h"

namespace ovix {

Listener::Listener(std::shared_ptr<ListenerCore> core) : core_(std::move(core)) {}

Listener::~Listener() { core_->release(); }

platform::Result<std::shared_ptr<Listener>> Listener::create(std::string_view serviceName) {
  auto core = ListenerCore::create(serviceName);
  if (!core) return core.error();
  return std::make_shared<Listener>(std::move(core.value()));
}

void Listener::setEventHandler(EventHandler handler) { core_->setHandler(std::move(handler)); }
void Listener::resume() { core_->resume(); }
void Listener::cancel() { core_->cancel(); }
const std::string& Listener::serviceName() const { return core_->serviceName(); }
const std::string& Listener::socketPath() const { return core_->socketPath(); }

}  // namespace ovix
