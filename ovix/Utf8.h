// Strict UTF-8 validation: no overlong forms, no surrogates, nothing above
// U+10FFFF, and no NUL (keys and strings end up in C APIs and paths).
#pragma once

#include <string_view>

namespace ovix {

bool isValidUtf8(std::string_view text);

}  // namespace ovix
