// SHA-1 of a byte string, for checking signatures over manifest payloads.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace platform {

using Sha1Digest = std::array<std::uint8_t, 20>;

Sha1Digest sha1Of(std::span<const std::uint8_t> bytes);

}  // namespace platform
