// Where services live: <runtime directory>/<service name>. The runtime
// directory is /run/ovix unless OVIX_RUNTIME_DIR names another (read by both
// services and clients, so tests and sandboxes can run without /run).
#pragma once

#include <string>
#include <string_view>

namespace ovix {

inline constexpr const char* kRuntimeDirectoryVariable = "OVIX_RUNTIME_DIR";
inline constexpr const char* kDefaultRuntimeDirectory = "/run/ovix";

std::string runtimeDirectory();

// A service name is one path component that fits a socket address: not
// empty, not starting with '.', no '/', no NUL, printable ASCII.
bool isValidServiceName(std::string_view name);

// <runtime directory>/<name>; empty when the name is invalid or the path
// would not fit a socket address.
std::string socketPathForService(std::string_view name);

}  // namespace ovix
