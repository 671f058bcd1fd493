#include "ovix/Connection.h"

#include <cerrno>

#include "ovix/ConnectionCore.h"
#include "ovix/ServiceName.h"
#include "ovix/Socket.h"

namespace ovix {

Connection::Connection(std::shared_ptr<ConnectionCore> core) : core_(std::move(core)) {}

Connection::~Connection() { core_->release(); }

platform::Result<std::shared_ptr<Connection>> Connection::connect(std::string_view serviceName) {
  const std::string path = socketPathForService(serviceName);
  if (path.empty()) {
    return platform::Error::posix(EINVAL, "not a valid service name: " + std::string(serviceName));
  }
  auto fd = socket::connectTo(path);
  if (!fd) return fd.error();
  return std::make_shared<Connection>(ConnectionCore::start(std::move(fd.value())));
}

void Connection::setEventHandler(EventHandler handler) { core_->setHandler(std::move(handler)); }
void Connection::resume() { core_->resume(); }
void Connection::cancel() { core_->cancel(); }
bool Connection::send(const Object& message) { return core_->send(message); }

std::optional<Object> Connection::receive(std::chrono::milliseconds timeout) {
  return core_->receive(timeout);
}

const platform::AuditToken& Connection::auditToken() const { return core_->token(); }

}  // namespace ovix
