// Writes a value as a binary property list ("bplist00") without building an
// intermediate tree: time and memory grow linearly with the value, which
// matters for device manifests of tens of thousands of records.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/Result.h"
#include "platform/Value.h"

namespace platform {

// Strings must be valid UTF-8. Equal strings are stored once; everything
// else is stored where it occurs.
Result<Data> encodeBinaryPropertyList(const Value& value);

// UTF-8 to the UTF-16 code units the format stores; false for malformed input.
bool utf8ToUtf16(std::string_view s, std::vector<std::uint16_t>& out);

}  // namespace platform
