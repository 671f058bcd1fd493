#include "ovix/Utf8.h"

#include <cstdint>

namespace ovix {

bool isValidUtf8(std::string_view text) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto* end = p + text.size();
  while (p < end) {
    const std::uint8_t b = *p;
    if (b == 0) return false;
    if (b < 0x80) {
      ++p;
      continue;
    }
    int more;
    std::uint32_t cp;
    std::uint32_t min;
    if ((b & 0xE0) == 0xC0) {
      more = 1, cp = b & 0x1F, min = 0x80;
    } else if ((b & 0xF0) == 0xE0) {
      more = 2, cp = b & 0x0F, min = 0x800;
    } else if ((b & 0xF8) == 0xF0) {
      more = 3, cp = b & 0x07, min = 0x10000;
    } else {
      return false;
    }
    if (end - p <= more) return false;
    for (int i = 1; i <= more; ++i) {
      if ((p[i] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    p += more + 1;
  }
  return true;
}

}  // namespace ovix
