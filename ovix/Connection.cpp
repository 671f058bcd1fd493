#include "ovix/Connection.h"

#include <cerrno>

namespace ovix {

class ConnectionCore {
 public:
  platform::AuditToken token;
};

Connection::Connection(std::shared_ptr<ConnectionCore> core) : core_(std::move(core)) {}
Connection::~Connection() = default;

platform::Result<std::shared_ptr<Connection>> Connection::connect(std::string_view) {
  return platform::Error::posix(ENOSYS, "not yet");
}
void Connection::setEventHandler(EventHandler) {}
void Connection::resume() {}
void Connection::cancel() {}
bool Connection::send(const Object&) { return false; }
std::optional<Object> Connection::receive(std::chrono::milliseconds) { return std::nullopt; }
const platform::AuditToken& Connection::auditToken() const { return core_->token; }

}  // namespace ovix
