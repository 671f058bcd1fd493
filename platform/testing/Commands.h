// Small things many tests need: the output of a shell command (to check
// our results against the system's own tools), bytes as hex and a file's
// contents.
#pragma once

#include <string>

#include "platform/Value.h"

namespace platform::testing {

// Standard output of the command run by /bin/sh.
std::string run(const std::string& command);
std::string hex(const Data& bytes);
// The whole file, or nothing where it cannot be read.
std::string contentsOf(const std::string& path);
inline Data bytesOf(const std::string& s) { return Data(s.begin(), s.end()); }

}  // namespace platform::testing
