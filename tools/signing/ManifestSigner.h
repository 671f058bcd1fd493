// Makes signed manifests: the payload bytes, signed with RSA PKCS#1 v1.5 over
// SHA-1 by the leaf of a certificate chain, wrapped in the version 2 envelope.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/Result.h"
#include "platform/Value.h"

namespace signing {

class ManifestSigner {
 public:
  // keyPath: the leaf's PEM private key (RSA). chainPath: PEM certificates,
  // leaf first, then the intermediates the verifier needs.
  static platform::Result<std::unique_ptr<ManifestSigner>> load(const std::string& keyPath,
                                                                const std::string& chainPath);
  ~ManifestSigner();

  platform::Result<platform::Data> sign(std::span<const std::uint8_t> payload) const;
  // The envelope dictionary around payload, signed.
  platform::Result<platform::Dictionary> envelope(const platform::Data& payload) const;
  const std::vector<platform::Data>& chain() const { return chain_; }

 private:
  struct Key;
  ManifestSigner(std::unique_ptr<Key> key, std::vector<platform::Data> chain);

  std::unique_ptr<Key> key_;
  std::vector<platform::Data> chain_;  // DER, leaf first
};

// The payload checks the service makes, so content is refused here rather
// than on the device: a dictionary, "Version" 3 or 4, and the four required keys.
platform::Status checkPayload(std::span<const std::uint8_t> payload);

}  // namespace signing
