// Trust on Linux with OpenSSL: each signing policy trusts the PEM anchors of
// its own folder and nothing else (the system's CA bundle plays no part).
#pragma once

#include <string>

#include "platform/TrustService.h"

namespace platform {

class Clock;

struct TrustAnchorFolders {
  std::string production = "/usr/share/velmor/trust/production";
  std::string development = "/usr/share/velmor/trust/development";
};

class LinuxTrustService : public TrustService {
 public:
  // Chains are checked at the clock's time, or the real time without one.
  explicit LinuxTrustService(TrustAnchorFolders folders = {}, Clock* clock = nullptr);

  std::shared_ptr<Certificate> createCertificate(std::span<const std::uint8_t> der) override;
  std::unique_ptr<TrustPolicy> createProductionSigningPolicy() override;
  std::unique_ptr<TrustPolicy> createDevelopmentSigningPolicy() override;
  TrustStatus createTrust(std::vector<std::shared_ptr<Certificate>> certificates,
                          const TrustPolicy& policy, std::unique_ptr<TrustObject>& out) override;
  TrustStatus evaluateTrust(TrustObject& trust, TrustResult& result) override;
  std::unique_ptr<PublicKey> copyPublicKey(TrustObject& trust) override;
  TrustStatus verifyPkcs1Sha1(const PublicKey& key, std::span<const std::uint8_t> digest,
                              std::span<const std::uint8_t> signature) override;

 private:
  std::unique_ptr<TrustPolicy> createPolicy(const std::string& folder);

  TrustAnchorFolders folders_;
  Clock* clock_;
};

}  // namespace platform
