// What the service is serving at this moment: whether a client's message is
// being handled and which request key of it runs. Console lines logged
// meanwhile carry it to the journal.
#pragma once

#include <string>

namespace QLXHServedMessage {

struct Snapshot {
  bool serving = false;  // a message is between receipt and "Message handled"
  std::string request;   // the key being served; empty before dispatch reaches one
};

// Held from handing a message to the responder until it is handled.
class MessageScope {
 public:
  MessageScope();
  ~MessageScope();
  MessageScope(const MessageScope&) = delete;
  MessageScope& operator=(const MessageScope&) = delete;
};

// Held while one request key's operation runs and is answered.
class RequestScope {
 public:
  explicit RequestScope(const std::string& key);
  ~RequestScope();
  RequestScope(const RequestScope&) = delete;
  RequestScope& operator=(const RequestScope&) = delete;
};

Snapshot current();

}  // namespace QLXHServedMessage
