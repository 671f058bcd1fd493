// libFuzzer target: vexdctl's JSON reader. Whatever it accepts must write
// back as JSON that reads again to the same message.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "ovix/Object.h"
#include "tools/ctl/Json.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  ovix::Object parsed;
  std::string error;
  if (!vexdctl::parseJson(text, parsed, error)) {
    if (error.empty()) std::abort();
    return 0;
  }
  const std::string written = vexdctl::toJson(parsed);
  ovix::Object again;
  if (!vexdctl::parseJson(written, again, error)) std::abort();
  if (!(again == parsed)) std::abort();
  return 0;
}
