// UTF-8 validation for text handed to C libraries and firmware that
// misbehave on anything else.
#pragma once

#include <string_view>

namespace platform {

// Well-formed UTF-8 (no overlong forms, no surrogates) whose code points
// are all at most maxCodePoint.
inline bool isValidUtf8(std::string_view s, char32_t maxCodePoint = 0x10ffff) {
  static constexpr char32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
  std::size_t i = 0;
  while (i < s.size()) {
    auto c = static_cast<unsigned char>(s[i]);
    std::size_t more;
    char32_t cp;
    if (c < 0x80) {
      more = 0, cp = c;
    } else if ((c & 0xe0) == 0xc0) {
      more = 1, cp = c & 0x1f;
    } else if ((c & 0xf0) == 0xe0) {
      more = 2, cp = c & 0x0f;
    } else if ((c & 0xf8) == 0xf0) {
      more = 3, cp = c & 0x07;
    } else {
      return false;
    }
    if (more >= s.size() - i) return false;  // cut short
    for (std::size_t k = 1; k <= more; ++k) {
      auto cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xc0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3f);
    }
    if (cp < kSmallest[more] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff) ||
        cp > maxCodePoint)
      return false;
    i += more + 1;
  }
  return true;
}

}  // namespace platform
