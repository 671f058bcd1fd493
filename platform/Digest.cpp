#include "platform/Digest.h"

namespace platform {

Data sha1(DigestService& service, std::span<const std::uint8_t> bytes) {
  auto digest = service.makeSha1();
  if (!digest) return {};
  digest->update(bytes);
  return digest->finish();
}

}  // namespace platform
