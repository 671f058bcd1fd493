// Where the process's console messages go when not to standard error: set
// once by main (the journal under systemd) before any other thread logs.
#pragma once

#include <functional>
#include <string>

namespace logging {

using ConsoleSink = std::function<void(const std::string& message)>;

void setProcessConsoleSink(ConsoleSink sink);
const ConsoleSink& processConsoleSink();

}  // namespace logging
