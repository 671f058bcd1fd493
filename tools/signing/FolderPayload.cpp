#include "tools/signing/FolderPayload.h"

#include <cerrno>

#include "manifest/QLXManifest.h"

namespace signing {

namespace {

platform::Result<platform::Dictionary> fileList(platform::Platform& platform,
                                                const std::string& folder, bool inclusive) {
  QLXManifest manifest(platform);
  if (!manifest.addFilesFromPath(folder, folder, {}, inclusive))
    return platform::Error{"FolderPayload", EIO, "Cannot record the files of " + folder};
  return manifest.dict();
}

}  // namespace

platform::Result<platform::Dictionary> buildFolderPayload(platform::Platform& platform,
                                                          const FolderPayloadOptions& options) {
  auto backup = fileList(platform, options.backupFolder, options.includeBackupRoot);
  if (!backup) return backup.error();

  platform::Dictionary appData, groupData, extensionData;
  for (const auto& [identifier, folder] : options.appData) {
    auto list = fileList(platform, folder, true);
    if (!list) return list.error();
    // An app's entry is a container record with its list under "Manifest".
    appData.set(
        identifier,
        platform::Value(platform::Dictionary{{"Manifest", platform::Value(std::move(*list))}}));
  }
  for (const auto& [lists, entries] : {std::pair{&groupData, &options.groupData},
                                       std::pair{&extensionData, &options.extensionData}}) {
    for (const auto& [identifier, folder] : *entries) {
      auto list = fileList(platform, folder, true);
      if (!list) return list.error();
      lists->set(identifier, platform::Value(std::move(*list)));
    }
  }

  platform::Dictionary payload;
  payload.set("Version", platform::Value(options.version));
  payload.set("Info", platform::Value(options.info));
  payload.set("Backup", platform::Value(std::move(*backup)));
  platform::Array apps;
  for (const auto& entry : options.appData) apps.emplace_back(entry.first);
  payload.set("App", platform::Value(std::move(apps)));
  payload.set("AppData", platform::Value(std::move(appData)));
  if (!groupData.empty()) payload.set("GroupData", platform::Value(std::move(groupData)));
  if (!extensionData.empty())
    payload.set("ExtensionData", platform::Value(std::move(extensionData)));
  return payload;
}

}  // namespace signing
