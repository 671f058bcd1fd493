#include "platform/Platform.h"

namespace platform {

Platform& shared() {
  static Platform instance;
  return instance;
}

}  // namespace platform
