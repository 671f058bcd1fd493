// The one small error type of the platform layer.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace platform {

struct Error {
  // The POSIX domain carries errno values; others name their subsystem.
  static constexpr const char* kPosixDomain = "NSPOSIXErrorDomain";

  std::string domain = kPosixDomain;
  std::int64_t code = 0;        // errno for POSIX failures
  std::string description;      // strerror text, with the path as context

  static Error posix(int err, std::string description) {
    return Error{kPosixDomain, err, std::move(description)};
  }
};

}  // namespace platform
