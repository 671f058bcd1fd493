// printf-style formatting over typed arguments: the conversions the service
// uses (%@ %s %d %i %u %ld %lld %lu %llu %x %lx %llx %%, flags and widths).
// A conversion with no argument left renders as empty text.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "logging/FormatArg.h"

namespace logging {

std::string formatMessage(std::string_view format, std::span<const FormatArg> args);

template <class... Args>
std::string format(std::string_view fmt, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    return formatMessage(fmt, {});
  } else {
    const FormatArg list[] = {FormatArg(args)...};
    return formatMessage(fmt, list);
  }
}

}  // namespace logging
