// The log shorthands used everywhere in the service.
#pragma once

#include <string_view>

#include "logging/QLXLogModel.h"

template <class... Args>
void QLXHLog(std::string_view format, const Args&... args) {
  if constexpr (sizeof...(Args) == 0) {
    QLXLogModel::sharedInstance().logWithFormat(format, {});
  } else {
    const logging::FormatArg list[] = {logging::FormatArg(args)...};
    QLXLogModel::sharedInstance().logWithFormat(format, list);
  }
}

// Debug notes are compiled out: their texts never reach the binary.
#define QLXHDebugLog(...) \
  do {                    \
  } while (0)
