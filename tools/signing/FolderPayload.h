// Builds a payload from folders on disk: the backed-up files' list and, per
// container, the file lists the device restores from.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/Result.h"
#include "platform/Value.h"

namespace platform {
struct Platform;
}

namespace signing {

struct FolderPayloadOptions {
  std::string backupFolder;        // its tree becomes "Backup", paths relative to it
  bool includeBackupRoot = false;  // record the folder itself as "/"
  std::int64_t version = 4;
  platform::Dictionary info;
  // Identifier and folder of each container; container folders are recorded
  // with themselves as "/".
  std::vector<std::pair<std::string, std::string>> appData, groupData, extensionData;
};

platform::Result<platform::Dictionary> buildFolderPayload(platform::Platform& platform,
                                                          const FolderPayloadOptions& options);

}  // namespace signing
