// Certificates, signing policies, chain evaluation and raw RSA verification:
// what the signed-manifest reader needs to decide whom to believe.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

namespace platform {

// Non-zero statuses of the trust calls. Zero is success.
using TrustStatus = std::int64_t;
namespace trust_status {
inline constexpr TrustStatus kSuccess = 0;
inline constexpr TrustStatus kBadParameter = -1;  // missing or foreign object, empty chain
inline constexpr TrustStatus kNoMemory = -2;      // the library could not allocate
inline constexpr TrustStatus kInternal = -3;      // the library failed for another reason
inline constexpr TrustStatus kBadSignature = -4;  // the signature does not match
}  // namespace trust_status

// The verdict of an evaluation; the numbers are part of the log texts.
enum class TrustResult : std::int32_t {
  Invalid = 0,                  // not evaluated
  Proceed = 1,                  // trusted with the user's explicit confirmation
  Deny = 3,                     // explicitly distrusted
  Unspecified = 4,              // leads to an anchor and nothing overrides it
  RecoverableTrustFailure = 5,  // untrusted root, expired or not yet valid
  FatalTrustFailure = 6,        // broken chain: bad signature, not a CA, path too long
  OtherError = 7,               // evaluation could not run
};

// Opaque objects; only the service that made one can use it.
class Certificate {
 public:
  virtual ~Certificate() = default;
};
class TrustPolicy {
 public:
  virtual ~TrustPolicy() = default;
};
class PublicKey {
 public:
  virtual ~PublicKey() = default;
};
class TrustObject {
 public:
  virtual ~TrustObject() = default;
};

class TrustService {
 public:
  virtual ~TrustService() = default;

  // Null when the bytes are not one DER certificate.
  virtual std::shared_ptr<Certificate> createCertificate(std::span<const std::uint8_t> der) = 0;

  // The signers of production and of development demo content. Null when
  // the policy's anchors cannot be loaded.
  virtual std::unique_ptr<TrustPolicy> createProductionSigningPolicy() = 0;
  virtual std::unique_ptr<TrustPolicy> createDevelopmentSigningPolicy() = 0;

  // certificates[0] is the leaf; the rest are untrusted intermediates.
  virtual TrustStatus createTrust(std::vector<std::shared_ptr<Certificate>> certificates,
                                  const TrustPolicy& policy, std::unique_ptr<TrustObject>& out) = 0;
  // A zero status means the evaluation ran; result says what it found.
  virtual TrustStatus evaluateTrust(TrustObject& trust, TrustResult& result) = 0;
  // The leaf's key; null when it cannot be extracted.
  virtual std::unique_ptr<PublicKey> copyPublicKey(TrustObject& trust) = 0;

  // RSA with PKCS#1 v1.5 padding over the SHA-1 DigestInfo of a 20-byte digest.
  virtual TrustStatus verifyPkcs1Sha1(const PublicKey& key, std::span<const std::uint8_t> digest,
                                      std::span<const std::uint8_t> signature) = 0;
};

}  // namespace platform
