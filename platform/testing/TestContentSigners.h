// A device's view of content signing for tests: production and development
// hierarchies made at run time, the anchor folders, an EFI variable folder
// for the signing fuse, and the platform bundle wired to the Linux trust
// service and device properties over them.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "platform/Value.h"
#include "platform/linux/LinuxDeviceProperties.h"
#include "platform/linux/LinuxTrustService.h"
#include "platform/linux/OpenSslDigestService.h"
#include "platform/testing/TestPki.h"

namespace platform::testing {

class TestContentSigners {
 public:
  TestContentSigners();

  bool ok() const { return pki.ok(); }
  // Writes the Secure Boot byte (0 or 1), or removes the variable.
  void setFuse(std::optional<int> value);

  // A payload of the given version with "Info", "Backup", "App", "AppData",
  // "GroupData" and "ExtensionData".
  static Dictionary samplePayload(std::int64_t version = 4);
  static Data encode(const Dictionary& dictionary);

  // The envelope around payload bytes, signed by signer with
  // "openssl dgst -sha1 -sign" and carrying chain (leaf first).
  Dictionary envelope(const Data& payload, const Identity& signer,
                      const std::vector<Identity>& chain);
  Dictionary productionEnvelope(const Data& payload) {
    return envelope(payload, productionSigner, {productionSigner, productionCa});
  }
  Dictionary developmentEnvelope(const Data& payload) {
    return envelope(payload, developmentSigner, {developmentSigner});
  }

  TestPki pki;
  Identity productionRoot, productionCa, productionSigner;
  Identity developmentRoot, developmentSigner;
  TrustAnchorFolders anchors;
  std::string efiVariables;
  std::unique_ptr<LinuxTrustService> trust;
  std::unique_ptr<LinuxDeviceProperties> deviceProperties;
  OpenSslDigestService digests;
  Platform platform;
};

}  // namespace platform::testing
