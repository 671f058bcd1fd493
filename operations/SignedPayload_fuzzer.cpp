// libFuzzer target: the signed manifest's payload, past the signature. The
// trust service of this target believes every chain and every signature, so
// arbitrary payload bytes reach manifest loading and "restoreAttributes:"
// onto a small staged tree made afresh for each input in a temporary folder.
//
// Input: one byte choosing the container (none, an app, a group, an
// extension), then the payload bytes.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "operations/QLXHOperations.h"
#include "platform/DeviceProperties.h"
#include "platform/FileSystem.h"
#include "platform/Platform.h"
#include "platform/PropertyList.h"
#include "platform/TrustService.h"
#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/OpenSslDigestService.h"

namespace {

using platform::Dictionary;
using platform::Value;

class AnyCertificate : public platform::Certificate {};
class AnyPolicy : public platform::TrustPolicy {};
class AnyKey : public platform::PublicKey {};
class AnyTrust : public platform::TrustObject {};

// Believes everything: only ever built into this fuzz target.
class CredulousTrustService : public platform::TrustService {
 public:
  std::shared_ptr<platform::Certificate> createCertificate(std::span<const std::uint8_t>) override {
    return std::make_shared<AnyCertificate>();
  }
  std::unique_ptr<platform::TrustPolicy> createProductionSigningPolicy() override {
    return std::make_unique<AnyPolicy>();
  }
  std::unique_ptr<platform::TrustPolicy> createDevelopmentSigningPolicy() override {
    return std::make_unique<AnyPolicy>();
  }
  platform::TrustStatus createTrust(std::vector<std::shared_ptr<platform::Certificate>>,
                                    const platform::TrustPolicy&,
                                    std::unique_ptr<platform::TrustObject>& out) override {
    out = std::make_unique<AnyTrust>();
    return platform::trust_status::kSuccess;
  }
  platform::TrustStatus evaluateTrust(platform::TrustObject&,
                                      platform::TrustResult& result) override {
    result = platform::TrustResult::Unspecified;
    return platform::trust_status::kSuccess;
  }
  std::unique_ptr<platform::PublicKey> copyPublicKey(platform::TrustObject&) override {
    return std::make_unique<AnyKey>();
  }
  platform::TrustStatus verifyPkcs1Sha1(const platform::PublicKey&, std::span<const std::uint8_t>,
                                        std::span<const std::uint8_t>) override {
    return platform::trust_status::kSuccess;
  }
};

class NoFuse : public platform::DeviceProperties {
 public:
  std::optional<Value> copyAnswer(const std::string& question) override {
    if (question == "SigningFuse") return Value(false);
    return std::nullopt;
  }
};

platform::Platform* services = nullptr;
QLXHOperations* operations = nullptr;
std::filesystem::path* work = nullptr;

// The staged tree a client would have made: folders, files and a link.
// Made with plain writes: the file system's own createFile syncs to disk,
// which would cost more than the restore.
void makeTree(const std::filesystem::path& root) {
  std::filesystem::create_directories(root / "Library/Preferences");
  std::filesystem::create_directories(root / "Documents");
  std::ofstream(root / "Library/Preferences/a.plist") << "demo";
  std::ofstream(root / "Documents/b") << "demo";
  std::error_code ignored;
  std::filesystem::create_symlink("/nonexistent/target", root / "Documents/link", ignored);
}

// A restored record may have made items immutable or append-only; those
// flags go first so that the tree can be removed.
void removeTree(platform::FileSystem& fs, const std::string& root) {
  const Dictionary unlocked{{platform::attr::kImmutable, false},
                            {platform::attr::kAppendOnly, false}};
  std::error_code ec;
  std::vector<std::string> paths{root};
  for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec))
    if (!it->is_symlink()) paths.push_back(it->path());
  for (const auto& path : paths) (void)fs.setAttributes(unlocked, path);
  std::filesystem::remove_all(root, ec);
  if (ec) std::abort();  // the next input would find this one's tree
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::random_device random;
  work = new std::filesystem::path(std::filesystem::temp_directory_path() /
                                   ("vexd-payload-fuzz-" + std::to_string(random())));
  std::filesystem::create_directories(*work);
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(*work, ignored);
  });
  services = new platform::Platform();
  services->clock = new platform::LinuxClock();
  services->fileSystem = new platform::LinuxFileSystem();
  services->digests = new platform::OpenSslDigestService();
  services->trust = new CredulousTrustService();
  services->deviceProperties = new NoFuse();
  operations = new QLXHOperations(*services);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static const char* const kContainers[][2] = {{nullptr, nullptr},
                                               {"AppData", "com.example.app"},
                                               {"GroupData", "group.example"},
                                               {"ExtensionData", "com.example.app.widget"}};
  const auto& container = kContainers[data[0] % 4];

  Dictionary envelope{{"Version", std::int64_t{2}},
                      {"Certificate", platform::Array{Value(platform::Data{0x30, 0x00})}},
                      {"Payload", platform::Data(data + 1, data + size)},
                      {"Signature", platform::Data(128, 0)}};
  auto bytes = platform::writeBinaryPropertyList(Value(envelope));
  if (!bytes) std::abort();

  platform::FileSystem& fs = *services->fileSystem;
  const std::string manifestPath = (*work / "manifest.plist").string();
  const std::string root = (*work / "staged").string();
  std::ofstream(manifestPath, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes->data()),
             static_cast<std::streamsize>(bytes->size()));
  makeTree(root);
  (void)operations->restoreAttributesUnder(Value(root), Value(manifestPath),
                                           container[0] ? Value(container[0]) : Value(),
                                           container[1] ? Value(container[1]) : Value());
  removeTree(fs, root);
  (void)fs.removeItem(manifestPath);
  return 0;
}
