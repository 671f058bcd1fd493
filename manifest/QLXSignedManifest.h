// A signed content manifest: a payload property list whose bytes are signed
// by a demo-content signer. An object exists only once the signer's chain,
// the signature and the payload's version and keys have all been checked.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/Value.h"

namespace platform {
class InputStream;
class PublicKey;
class TrustPolicy;
struct Platform;
}  // namespace platform

class QLXSignedManifest {
 public:
  // Largest signed manifest read; real ones are a few MiB.
  static constexpr std::size_t kMaxManifestBytes = 64u << 20;

  // The trust service and device properties are taken from platform.
  explicit QLXSignedManifest(platform::Platform& platform);
  ~QLXSignedManifest();

  // Reads, verifies and checks a manifest; null when any step fails.
  static std::unique_ptr<QLXSignedManifest> signedManifestWithNSStream(
      platform::InputStream& stream, platform::Platform& platform);
  bool initWithNSStream(platform::InputStream& stream);

  // The payload's entries; null when absent or, except for the app list,
  // not a dictionary.
  std::int64_t getVersion() const;
  const platform::Dictionary* getInfo() const;
  const platform::Value* getAppList() const;
  const platform::Dictionary* getAppDataList() const;
  const platform::Dictionary* getGroupDataList() const;
  const platform::Dictionary* getPlugInDataList() const;
  const platform::Dictionary* getManifest() const;  // the "Backup" file list

  const std::optional<platform::Dictionary>& payload() const { return payload_; }
  void setPayload(std::optional<platform::Dictionary> payload) { payload_ = std::move(payload); }

  // The payload bytes when the chain is trusted and the signature matches.
  std::optional<platform::Data> verifyManifestSignature(const platform::Dictionary& outer);
  std::unique_ptr<platform::PublicKey> createPublicKeyForStrongSigning(
      const platform::Array& certificates);
  std::unique_ptr<platform::PublicKey> createPublicKeyForDevelopmentSigning(
      const platform::Array& certificates);
  std::unique_ptr<platform::PublicKey> createPublicKeyForDevelopmentSigningStandard(
      const platform::Array& certificates);
  // The leaf's key if the chain is trusted under policy, which it consumes.
  std::unique_ptr<platform::PublicKey> createPublicKey(
      const platform::Array& certificates, std::unique_ptr<platform::TrustPolicy> policy);
  bool verifySignature(const platform::Value& signature, const platform::Data& data,
                       const platform::PublicKey& key);

 private:
  const platform::Dictionary* dictionaryFor(const char* key) const;

  platform::Platform& platform_;
  std::optional<platform::Dictionary> payload_;
};
