// libFuzzer target: arbitrary bytes as the signed manifest file.
//
// VEXD_FUZZ_ANCHORS names a folder with production/ and development/ anchor
// folders, so that seeds signed under them reach the payload checks. The
// device answers the fuse question with false, so both policies are tried.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "manifest/QLXSignedManifest.h"
#include "platform/DeviceProperties.h"
#include "platform/InputStream.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxTrustService.h"
#include "platform/linux/OpenSslDigestService.h"

namespace {

class DevelopmentHardware : public platform::DeviceProperties {
 public:
  std::optional<platform::Value> copyAnswer(const std::string& question) override {
    if (question == "SigningFuse") return platform::Value(false);
    return std::nullopt;
  }
};

platform::Platform* services = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* anchors = std::getenv("VEXD_FUZZ_ANCHORS");
  std::string root = anchors ? anchors : "/nonexistent";
  static platform::LinuxTrustService trust({root + "/production", root + "/development"});
  static DevelopmentHardware device;
  static platform::OpenSslDigestService digests;
  static platform::Platform bundle;
  bundle.trust = &trust;
  bundle.deviceProperties = &device;
  bundle.digests = &digests;
  services = &bundle;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  platform::DataInputStream stream(platform::Data(data, data + size));
  auto manifest = QLXSignedManifest::signedManifestWithNSStream(stream, *services);
  if (manifest) {
    // Every getter must cope with whatever a signed payload holds.
    (void)manifest->getVersion();
    (void)manifest->getInfo();
    (void)manifest->getAppList();
    (void)manifest->getAppDataList();
    (void)manifest->getGroupDataList();
    (void)manifest->getPlugInDataList();
    (void)manifest->getManifest();
  }
  return 0;
}
