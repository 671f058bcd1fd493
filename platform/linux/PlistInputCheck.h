// Structural checks run on untrusted property-list bytes before libplist
// sees them: its parsers recurse without limit and trust binary offsets, so
// a crafted file could exhaust the stack or the heap.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace platform {

// Deepest accepted nesting of arrays and dictionaries (the top-level
// container counts as 1).
inline constexpr int kMaxPropertyListDepth = 128;

// Largest property list read or parsed, in bytes.
inline constexpr std::size_t kMaxPropertyListBytes = 256u << 20;

// Whether bytes start with the binary format's magic.
bool looksLikeBinaryPropertyList(std::span<const std::uint8_t> bytes);

// Each returns the reason the input is refused, or nothing when it is safe
// to hand to libplist.
std::optional<std::string> checkBinaryPropertyList(std::span<const std::uint8_t> bytes);
std::optional<std::string> checkXmlPropertyList(std::span<const std::uint8_t> bytes);

}  // namespace platform
