#include "ovix/ListenerCore.h"

#include <poll.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>

#include "ovix/ActivatedSockets.h"
#include "ovix/ClientQuota.h"
#include "ovix/Connection.h"
#include "ovix/ConnectionCore.h"
#include "ovix/Runtime.h"
#include "ovix/ServiceName.h"
#include "ovix/Socket.h"

namespace ovix {

ListenerCore::ListenerCore(std::string name, std::string path, platform::UniqueFd lock,
                           platform::UniqueFd socket)
    : name_(std::move(name)),
      path_(std::move(path)),
      lock_(std::move(lock)),
      socket_(std::move(socket)),
      wake_(socket::makeWakeFd()),
      queue_(SerialQueue::create()) {}

platform::Result<std::shared_ptr<ListenerCore>> ListenerCore::create(std::string_view serviceName) {
  const std::string path = socketPathForService(serviceName);
  if (path.empty()) {
    return platform::Error::posix(EINVAL, "not a valid service name: " + std::string(serviceName));
  }
  const std::string dir = runtimeDirectory();
  if (platform::Status made = socket::makeDirectory(dir); !made) return made.error();
  // Names cannot start with '.', so the lock never collides with a socket.
  auto lock = socket::lockService(dir + "/." + std::string(serviceName) + ".lock");
  if (!lock) return lock.error();
  // With the lock held, a socket already at the path is a dead process's
  // (or the one a service manager passed us).
  auto sock = ActivatedSockets::instance().listenAt(path);
  if (!sock) return sock.error();

  Runtime& runtime = Runtime::instance();
  runtime.watchTermination();
  auto core = std::make_shared<ListenerCore>(std::string(serviceName), path,
                                             std::move(lock.value()), std::move(sock.value()));
  if (!core->wake_.valid()) return platform::Error::posix(errno, "cannot create eventfd");
  try {
    std::thread(acceptLoop, core).detach();
  } catch (const std::system_error& e) {
    // Leaves nothing behind: the lock and socket close with the core.
    ::unlink(path.c_str());
    return platform::Error::posix(e.code().value(), "cannot start the accept thread");
  }
  runtime.add(core);
  return core;
}

void ListenerCore::setHandler(EventHandler handler) {
  std::lock_guard lock(mutex_);
  if (!lastDelivered_) handler_ = std::move(handler);
}

void ListenerCore::cancel() {
  std::lock_guard lock(mutex_);
  if (cancelled_) return;
  cancelled_ = true;
  socket::signalWake(wake_.get());
}

void ListenerCore::release() {
  cancel();
  queue_->abandonIfSuspended();
}

bool ListenerCore::postTerminationImminent() {
  {
    std::lock_guard lock(mutex_);
    if (cancelled_) return false;
  }
  post(errorTerminationImminent(), false);
  return true;
}

void ListenerCore::acceptLoop(std::shared_ptr<ListenerCore> self) {
  for (;;) {
    pollfd fds[2] = {{self->socket_.get(), POLLIN, 0}, {self->wake_.get(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) break;
    {
      std::lock_guard lock(self->mutex_);
      if (self->cancelled_) break;
    }
    if (fds[1].revents & POLLIN) socket::drainWake(self->wake_.get());
    if (!(fds[0].revents & POLLIN)) continue;
    auto accepted = socket::acceptFrom(self->socket_.get());
    if (accepted) {
      // Over its quota a client is closed unserved (the quota reports it).
      auto ticket = ClientQuota::shared()->admit(socket::peerUid(accepted.value().get()));
      if (!ticket) continue;
      auto core = ConnectionCore::start(std::move(accepted.value()), std::move(ticket));
      Runtime::instance().add(core);
      self->post(Object::makeConnection(std::make_shared<Connection>(core)), false);
      continue;
    }
    switch (accepted.error().code) {
      case EINTR:
      case EAGAIN:
      case ECONNABORTED:
      case EPROTO:
        continue;  // that one client is gone; the next may be fine
      case EMFILE:
      case ENFILE:
      case ENOBUFS:
      case ENOMEM:
        // Out of descriptors or memory for now: back off rather than spin.
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        continue;
      default:
        self->post(Object::makeError(accepted.error().description), false);
        // Nothing more can be accepted; wait for cancel() to clean up.
        pollfd wake{self->wake_.get(), POLLIN, 0};
        for (;;) {
          ::poll(&wake, 1, -1);
          socket::drainWake(self->wake_.get());
          std::lock_guard lock(self->mutex_);
          if (self->cancelled_) break;
        }
        self->finish();
        return;
    }
  }
  self->finish();
}

void ListenerCore::finish() {
  // The lock is still ours, so the file at the path is our socket; remove it
  // before letting the lock go, so a successor never loses its own.
  if (!ActivatedSockets::instance().forget(socket_.get())) ::unlink(path_.c_str());
  socket_.reset();
  lock_.reset();
  post(errorConnectionInvalid(), true);
  queue_->close();
}

void ListenerCore::post(Object event, bool last) {
  auto self = shared_from_this();
  queue_->post([self, event = std::move(event), last] { self->deliver(event, last); });
}

void ListenerCore::deliver(const Object& event, bool last) {
  EventHandler handler;
  {
    std::lock_guard lock(mutex_);
    handler = handler_;
  }
  if (handler) handler(event);
  EventHandler released;
  if (last) {
    std::lock_guard lock(mutex_);
    lastDelivered_ = true;
    released = std::move(handler_);
    handler_ = nullptr;
  }
}

}  // namespace ovix
