#include "platform/testing/TestContentSigners.h"

#include <filesystem>

#include "platform/PropertyList.h"

namespace platform::testing {

namespace {
constexpr const char* kSecureBoot = "SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";
}

TestContentSigners::TestContentSigners() {
  productionRoot = pki.makeRoot("production-root");
  productionCa = pki.makeIssued("production-ca", productionRoot, CertOptions().ca().days(3650));
  productionSigner =
      pki.makeIssued("production-signer", productionCa, CertOptions().usage("digitalSignature"));
  developmentRoot = pki.makeRoot("development-root");
  developmentSigner = pki.makeIssued("development-signer", developmentRoot);
  anchors.production = pki.anchorFolder("anchors-production", {productionRoot});
  anchors.development = pki.anchorFolder("anchors-development", {developmentRoot});
  efiVariables = pki.folder() + "/efivars";
  std::filesystem::create_directories(efiVariables);

  trust = std::make_unique<LinuxTrustService>(anchors);
  deviceProperties = std::make_unique<LinuxDeviceProperties>(
      DevicePropertyPaths{.efiVariables = efiVariables, .dataVolume = pki.folder()});
  platform.trust = trust.get();
  platform.deviceProperties = deviceProperties.get();
  platform.digests = &digests;
}

void TestContentSigners::setFuse(std::optional<int> value) {
  std::string path = efiVariables + "/" + kSecureBoot;
  std::error_code ec;
  std::filesystem::remove(path, ec);
  if (value) pki.writeFile(path, {0x06, 0, 0, 0, static_cast<std::uint8_t>(*value)});
}

Dictionary TestContentSigners::samplePayload(std::int64_t version) {
  Dictionary record;
  record.set("QLXManifestFileHash", Value(Data{}));
  Dictionary files;
  files.set("/", Value(record));
  Dictionary appContainer;
  appContainer.set("Manifest", Value(files));
  Dictionary payload;
  payload.set("Version", Value(version));
  payload.set("Info", Value(Dictionary{{"Name", Value("Window display")}}));
  payload.set("Backup", Value(files));
  payload.set("App", Value(Array{Value("com.example.demo")}));
  payload.set("AppData", Value(Dictionary{{"com.example.demo", Value(appContainer)}}));
  payload.set("GroupData", Value(Dictionary{{"group.com.example", Value(files)}}));
  payload.set("ExtensionData", Value(Dictionary{{"com.example.demo.widget", Value(files)}}));
  return payload;
}

Data TestContentSigners::encode(const Dictionary& dictionary) {
  auto bytes = writeBinaryPropertyList(Value(dictionary));
  return bytes ? *bytes : Data{};
}

Dictionary TestContentSigners::envelope(const Data& payload, const Identity& signer,
                                        const std::vector<Identity>& chain) {
  Array certificates;
  for (const Identity& id : chain) certificates.emplace_back(pki.der(id));
  Dictionary outer;
  outer.set("Version", Value(2));
  outer.set("Certificate", Value(std::move(certificates)));
  outer.set("Payload", Value(payload));
  outer.set("Signature", Value(pki.signSha1(signer, payload)));
  return outer;
}

}  // namespace platform::testing
