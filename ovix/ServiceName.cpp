#include "ovix/ServiceName.h"

#include <sys/un.h>

#include <cstdlib>

namespace ovix {

std::string runtimeDirectory() {
  const char* dir = std::getenv(kRuntimeDirectoryVariable);
  if (dir && *dir) {
    std::string d(dir);
    while (d.size() > 1 && d.back() == '/') d.pop_back();
    return d;
  }
  return kDefaultRuntimeDirectory;
}

bool isValidServiceName(std::string_view name) {
  if (name.empty() || name.front() == '.' || name.size() > 100) return false;
  for (char c : name) {
    if (c <= ' ' || c > '~' || c == '/') return false;
  }
  return true;
}

std::string socketPathForService(std::string_view name) {
  if (!isValidServiceName(name)) return {};
  std::string path = runtimeDirectory() + "/" + std::string(name);
  // sun_path holds the path and its terminating NUL.
  if (path.size() >= sizeof(sockaddr_un::sun_path)) return {};
  return path;
}

}  // namespace ovix
