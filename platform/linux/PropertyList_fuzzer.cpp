// Feeds arbitrary bytes to the property-list reader: it must answer with a
// value or an error, never crash, and whatever it accepts must write back.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "platform/PropertyList.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto parsed = platform::parsePropertyList(std::span(data, size));
  if (!parsed) return 0;
  auto written = platform::writeBinaryPropertyList(*parsed);
  if (written && !platform::parsePropertyList(*written)) std::abort();
  return 0;
}
