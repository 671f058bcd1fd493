// qlx-sign-manifest: makes and checks signed content manifests.
//
//   qlx-sign-manifest sign --key KEY.pem --chain CHAIN.pem [--unchecked] -o OUT PAYLOAD.plist
//   qlx-sign-manifest sign --key KEY.pem --chain CHAIN.pem -o OUT --folder DIR [--include-root]
//       [--info INFO.plist] [--payload-version 3|4] [--app-data ID=DIR]... [--group-data ID=DIR]...
//       [--extension-data ID=DIR]...
//   qlx-sign-manifest verify [--production DIR] [--development DIR] [--fuse 0|1] MANIFEST
//
// See docs/signed-manifest.md for the file format.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "manifest/QLXSignedManifest.h"
#include "platform/DeviceProperties.h"
#include "platform/InputStream.h"
#include "platform/Platform.h"
#include "platform/PropertyList.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LinuxTrustService.h"
#include "platform/linux/OpenSslDigestService.h"
#include "tools/signing/FolderPayload.h"
#include "tools/signing/ManifestSigner.h"
#include "vexd_version.h"

namespace {

// On request (--help) the usage goes to standard output and is no error.
int usage(std::FILE* to = stderr) {
  std::fputs(
      "usage: qlx-sign-manifest sign --key KEY.pem --chain CHAIN.pem [--unchecked] -o OUT "
      "PAYLOAD.plist\n"
      "       qlx-sign-manifest sign --key KEY.pem --chain CHAIN.pem -o OUT --folder DIR "
      "[--include-root]\n"
      "           [--info INFO.plist] [--payload-version 3|4] [--app-data ID=DIR]...\n"
      "           [--group-data ID=DIR]... [--extension-data ID=DIR]...\n"
      "       qlx-sign-manifest verify [--production DIR] [--development DIR] [--fuse 0|1] "
      "MANIFEST\n"
      "       qlx-sign-manifest --help | --version\n",
      to);
  return to == stdout ? 0 : 2;
}

int fail(const std::string& message) {
  std::fprintf(stderr, "qlx-sign-manifest: %s\n", message.c_str());
  return 1;
}

std::optional<platform::Data> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  return platform::Data(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool writeFile(const std::string& path, const platform::Data& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out.flush());
}

// "ID=DIR" of a container option.
bool container(const std::string& text, std::vector<std::pair<std::string, std::string>>& into) {
  std::size_t equals = text.find('=');
  if (equals == 0 || equals == std::string::npos || equals + 1 == text.size()) return false;
  into.emplace_back(text.substr(0, equals), text.substr(equals + 1));
  return true;
}

// The payload bytes from a folder, recorded the way the device records files.
std::optional<platform::Data> folderPayload(const signing::FolderPayloadOptions& options,
                                            const std::string& infoPath) {
  signing::FolderPayloadOptions withInfo = options;
  if (!infoPath.empty()) {
    auto info = platform::readPropertyListFile(infoPath);
    if (!info || !info->dictionary()) {
      fail(infoPath + ": not a property-list dictionary");
      return std::nullopt;
    }
    withInfo.info = *info->dictionary();
  }
  platform::LinuxFileSystem fileSystem;
  platform::OpenSslDigestService digests;
  platform::Platform services;
  services.fileSystem = &fileSystem;
  services.digests = &digests;
  auto payload = signing::buildFolderPayload(services, withInfo);
  if (!payload) {
    fail(payload.error().description);
    return std::nullopt;
  }
  auto bytes = platform::writeBinaryPropertyList(platform::Value(std::move(*payload)));
  if (!bytes) {
    fail("cannot encode the payload: " + bytes.error().description);
    return std::nullopt;
  }
  return *bytes;
}

int sign(int argc, char** argv) {
  std::string key, chain, output, payloadPath, infoPath;
  signing::FolderPayloadOptions folder;
  bool unchecked = false;
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    bool hasValue = i + 1 < argc;
    if (arg == "--key" && hasValue)
      key = argv[++i];
    else if (arg == "--chain" && hasValue)
      chain = argv[++i];
    else if ((arg == "-o" || arg == "--output") && hasValue)
      output = argv[++i];
    else if (arg == "--unchecked")
      unchecked = true;
    else if (arg == "--folder" && hasValue)
      folder.backupFolder = argv[++i];
    else if (arg == "--include-root")
      folder.includeBackupRoot = true;
    else if (arg == "--info" && hasValue)
      infoPath = argv[++i];
    else if (arg == "--payload-version" && hasValue)
      folder.version = std::atoll(argv[++i]);
    else if (arg == "--app-data" && hasValue && container(argv[i + 1], folder.appData))
      ++i;
    else if (arg == "--group-data" && hasValue && container(argv[i + 1], folder.groupData))
      ++i;
    else if (arg == "--extension-data" && hasValue && container(argv[i + 1], folder.extensionData))
      ++i;
    else if (!arg.starts_with("-") && payloadPath.empty())
      payloadPath = arg;
    else
      return usage();
  }
  if (key.empty() || chain.empty() || output.empty()) return usage();
  if (payloadPath.empty() == folder.backupFolder.empty()) return usage();

  std::optional<platform::Data> payload =
      payloadPath.empty() ? folderPayload(folder, infoPath) : readFile(payloadPath);
  if (!payload) return payloadPath.empty() ? 1 : fail("cannot read " + payloadPath);
  if (!unchecked) {
    platform::Status checked = signing::checkPayload(*payload);
    if (!checked) return fail("payload: " + checked.error().description);
  }
  auto signer = signing::ManifestSigner::load(key, chain);
  if (!signer) return fail(signer.error().description);
  auto outer = (*signer)->envelope(*payload);
  if (!outer) return fail(outer.error().description);
  auto bytes = platform::writeBinaryPropertyList(platform::Value(std::move(*outer)));
  if (!bytes) return fail("cannot encode the manifest: " + bytes.error().description);
  if (!writeFile(output, *bytes)) return fail("cannot write " + output);
  return 0;
}

// Answers the signing-fuse question as told on the command line.
class FixedFuse : public platform::DeviceProperties {
 public:
  explicit FixedFuse(std::optional<bool> fuse) : fuse_(fuse) {}
  std::optional<platform::Value> copyAnswer(const std::string& question) override {
    if (question != "SigningFuse" || !fuse_) return std::nullopt;
    return platform::Value(*fuse_);
  }

 private:
  std::optional<bool> fuse_;
};

int verify(int argc, char** argv) {
  platform::TrustAnchorFolders folders;
  std::optional<bool> fuse;
  std::string path;
  for (int i = 0; i < argc; ++i) {
    std::string arg = argv[i];
    bool hasValue = i + 1 < argc;
    if (arg == "--production" && hasValue)
      folders.production = argv[++i];
    else if (arg == "--development" && hasValue)
      folders.development = argv[++i];
    else if (arg == "--fuse" && hasValue) {
      std::string value = argv[++i];
      if (value != "0" && value != "1") return usage();
      fuse = value == "1";
    } else if (!arg.starts_with("-") && path.empty())
      path = arg;
    else
      return usage();
  }
  if (path.empty()) return usage();

  platform::LinuxTrustService trust(folders);
  FixedFuse deviceProperties(fuse);
  platform::Platform services;
  services.trust = &trust;
  services.deviceProperties = &deviceProperties;
  platform::OpenSslDigestService digests;
  services.digests = &digests;
  std::unique_ptr<platform::InputStream> stream = platform::inputStreamWithFileAtPath(path);
  if (!stream) return fail("cannot open " + path);
  auto manifest = QLXSignedManifest::signedManifestWithNSStream(*stream, services);
  if (!manifest) return 1;
  auto count = [](const platform::Dictionary* d) { return d ? d->size() : 0; };
  std::printf(
      "valid: version %lld, %zu backup entries, %zu app data, %zu group data, "
      "%zu extension data\n",
      static_cast<long long>(manifest->getVersion()), count(manifest->getManifest()),
      count(manifest->getAppDataList()), count(manifest->getGroupDataList()),
      count(manifest->getPlugInDataList()));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    return usage(stdout);
  }
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("qlx-sign-manifest %s\n", VEXD_VERSION);
    return 0;
  }
  if (std::strcmp(argv[1], "sign") == 0) return sign(argc - 2, argv + 2);
  if (std::strcmp(argv[1], "verify") == 0) return verify(argc - 2, argv + 2);
  return usage();
}
