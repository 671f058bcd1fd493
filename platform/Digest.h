// Message digests for file hashing and manifest signatures.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "platform/Value.h"

namespace platform {

// One running digest. finish() answers the digest and starts a fresh one,
// so a context can be reused for file after file.
class Digest {
 public:
  virtual ~Digest() = default;
  virtual void update(std::span<const std::uint8_t> bytes) = 0;
  virtual Data finish() = 0;
};

class DigestService {
 public:
  virtual ~DigestService() = default;
  // A SHA-1 context; nullptr only when the library cannot provide one.
  virtual std::unique_ptr<Digest> makeSha1() = 0;
};

// SHA-1 of bytes in one call; empty data when no context can be made.
Data sha1(DigestService& service, std::span<const std::uint8_t> bytes);

}  // namespace platform
