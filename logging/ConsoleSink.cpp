#include "logging/ConsoleSink.h"

namespace logging {

namespace {

ConsoleSink& sink() {
  static ConsoleSink* processSink = new ConsoleSink();
  return *processSink;
}

}  // namespace

void setProcessConsoleSink(ConsoleSink s) { sink() = std::move(s); }

const ConsoleSink& processConsoleSink() { return sink(); }

}  // namespace logging
