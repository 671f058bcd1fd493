#include "platform/FileSystem.h"

namespace platform {

const char* resourceKeyName(ResourceKey key) {
  switch (key) {
    case ResourceKey::IsRegularFile:
      return "IsRegularFile";
    case ResourceKey::IsDirectory:
      return "IsDirectory";
    case ResourceKey::IsSymbolicLink:
      return "IsSymbolicLink";
  }
  return "Unknown";
}

}  // namespace platform
