#include "operations/QLXHOperations.h"

#include "platform/Platform.h"

QLXHOperations::QLXHOperations(platform::Platform& platform, QLXHOperationsPaths paths)
    : platform_(platform), paths_(std::move(paths)) {}

QLXHOperations& QLXHOperations::sharedInstance() {
  // A function-local static is initialised exactly once, even when the first
  // calls race.
  static QLXHOperations* instance = new QLXHOperations(platform::shared());
  return *instance;
}
