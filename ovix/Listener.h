// A named service: the socket <runtime directory>/<service name> and the
// thread that accepts its clients.
//
// A listener starts suspended: install a handler, then resume(). Its events
// are new connections (Type::Connection, each suspended until its own handler
// is installed and it is resumed) and errors: termination imminent when the
// process receives SIGTERM, connection invalid after cancel(), any other
// error when accepting fails for good. Events arrive one at a time, in order,
// on the listener's own serial queue.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "ovix/Object.h"
#include "platform/Result.h"

namespace ovix {

class ListenerCore;

class Listener {
 public:
  using EventHandler = std::function<void(const Object& event)>;

  // Publishes the service. A socket left by a process that has died is
  // replaced; a name another live process serves is never taken over: that
  // fails with code EADDRINUSE. A bad name fails with EINVAL; anything else
  // with the errno of the failing call.
  //
  // The first listener of a process blocks SIGTERM in the calling thread and
  // starts the thread that turns SIGTERM into termination-imminent events,
  // so create it before starting other threads.
  static platform::Result<std::shared_ptr<Listener>> create(std::string_view serviceName);

  // Dropping the last reference cancels the listener.
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  void setEventHandler(EventHandler handler);
  void resume();

  // Stops accepting and removes the socket; connections already accepted
  // live on. Connection invalid is delivered last to the handler.
  void cancel();

  const std::string& serviceName() const;
  const std::string& socketPath() const;

  // Internal.
  explicit Listener(std::shared_ptr<ListenerCore> core);

 private:
  std::shared_ptr<ListenerCore> core_;
};

}  // namespace ovix
