#include "platform/Sha1.h"

#include <openssl/sha.h>

namespace platform {

Sha1Digest sha1Of(std::span<const std::uint8_t> bytes) {
  Sha1Digest digest{};
  SHA1(bytes.data(), bytes.size(), digest.data());
  return digest;
}

}  // namespace platform
