#include "vexd_helper/QLXHServedMessage.h"

#include <mutex>

namespace QLXHServedMessage {

namespace {

// Process-wide, like the responder's current connection it describes.
std::mutex gLock;
int gMessages = 0;
std::string gRequest;

}  // namespace

MessageScope::MessageScope() {
  std::lock_guard guard(gLock);
  ++gMessages;
}

MessageScope::~MessageScope() {
  std::lock_guard guard(gLock);
  if (--gMessages == 0) gRequest.clear();
}

RequestScope::RequestScope(const std::string& key) {
  std::lock_guard guard(gLock);
  gRequest = key;
}

RequestScope::~RequestScope() {
  std::lock_guard guard(gLock);
  gRequest.clear();
}

Snapshot current() {
  std::lock_guard guard(gLock);
  return Snapshot{gMessages > 0, gRequest};
}

}  // namespace QLXHServedMessage
