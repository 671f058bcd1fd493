// One end of a stream between a client and a service. A service receives
// its connections from a Listener; a client makes one with connect().
//
// A connection starts suspended: install a handler, then resume(). Its
// events (dictionaries, then exactly one connection-invalid error last;
// termination-imminent on the service side) are delivered one at a time, in
// order, on the connection's own serial queue. The handler is released after
// the last event, so a handler may capture its own connection.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "ovix/Object.h"
#include "platform/AuditToken.h"
#include "platform/Result.h"

namespace ovix {

class ConnectionCore;

class Connection {
 public:
  using EventHandler = std::function<void(const Object& event)>;

  // Connects to <runtime directory>/<serviceName>. The error's code is the
  // errno of the failing call (ENOENT: nobody serves the name; ECONNREFUSED:
  // a stale socket; EINVAL: the name is not a valid service name).
  static platform::Result<std::shared_ptr<Connection>> connect(std::string_view serviceName);

  // Dropping the last reference cancels the connection.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void setEventHandler(EventHandler handler);
  void resume();

  // Closes the connection: no more events but connection-invalid, delivered
  // last. Frames sent before still go out while the peer keeps reading them;
  // further sends are refused.
  void cancel();

  // Queues one dictionary for sending and returns at once; never raises
  // SIGPIPE. Refused (false) when the message is not a dictionary, holds an
  // event-only type, invalid UTF-8 or nests too deep, encodes over the frame
  // limit, or the connection is closed.
  bool send(const Object& message);

  // Without an event handler: waits up to `timeout` for the next event
  // (resuming the connection if needed). Empty on timeout; after the last
  // event (connection invalid) answers connection invalid again at once.
  std::optional<Object> receive(std::chrono::milliseconds timeout);

  // The peer as it was when the connection was made. The pidfd in it
  // belongs to the connection and stays open as long as the connection.
  const platform::AuditToken& auditToken() const;

  // Internal: made by the listener and by connect().
  explicit Connection(std::shared_ptr<ConnectionCore> core);
  ConnectionCore& core() const { return *core_; }

 private:
  std::shared_ptr<ConnectionCore> core_;
};

}  // namespace ovix
