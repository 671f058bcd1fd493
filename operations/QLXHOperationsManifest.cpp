// The device manifest, hard links into staging and the staging move.
#include "logging/QLXHLog.h"
#include "manifest/QLXManifest.h"
#include "manifest/QLXManifestWriter.h"
#include "manifest/QLXProgressUpdater.h"
#include "operations/QLXHOperations.h"
#include "ovix/Transaction.h"
#include "platform/FileSystem.h"
#include "platform/Platform.h"

namespace {

// The request texts that mean the whole user data area, compared exactly.
bool namesWholeDataArea(const std::string& path) {
  return path == "/private" || path == "/private/" || path == "/private/var" ||
         path == "/private/var/";
}

}  // namespace

bool QLXHOperations::createDeviceManifest(const platform::Value& pathValue, bool inclusive) {
  QLXHLog("Will create device manifest...");
  // The service must not be reclaimed while the walk and the write run.
  ovix::Transaction transaction;
  const std::string* path = pathValue.string();
  if (!path) {
    QLXHLog("%@ is not a path", pathValue);
    QLXHLog("Cannot create device manifest - 1");
    return false;
  }

  QLXManifest manifest(platform_);
  std::string root = *path;
  std::string base = *path;
  std::vector<std::string> skip;
  if (namesWholeDataArea(*path)) {
    root = paths_.dataAreaRoot;
    base = paths_.dataAreaBase;
    skip = paths_.dataAreaSkipList;
    manifest.setProgressUpdater(&QLXProgressUpdater::sharedInstance());
  } else {
    skip = manifest.immediateHiddenFilesUnderPath(*path);
  }

  // Records go to the file as they are collected, so a walk of a million
  // files holds none of them; the file takes the old one's place only when
  // the walk succeeds.
  QLXManifestWriter writer(*platform_.fileSystem, paths_.deviceManifestPath);
  bool collected = manifest.enumerateAndCollectMetaData(
      root, base, skip, inclusive, [&writer](QLXFileMetadata& record, const std::string& relative) {
        writer.add(std::move(record), relative);
        return true;
      });
  if (!collected) {
    QLXHLog("Cannot create device manifest - 1");
    return false;
  }
  // The walk's result is what is reported; a failed write keeps the previous
  // manifest whole and is not reported.
  (void)writer.commit();
  QLXHLog("Device manifest created (for %@)", *path);
  return true;
}

bool QLXHOperations::createHardLinks(const platform::Value& source,
                                     const platform::Value& stagingPath) {
  platform::Status linked = platform::Error::posix(22, "Invalid argument");
  if (source.string() && stagingPath.string())
    linked = platform_.fileSystem->linkItem(*source.string(), *stagingPath.string());
  if (!linked) {
    QLXHLog("Could not link %@ to %@ with error -%@.", source, stagingPath, linked.error());
    return false;
  }
  return true;
}

bool QLXHOperations::moveStagingToFinal(const platform::Value& stagingValue) {
  QLXHLog("Move the whole thing together.");
  platform::FileSystem& fs = *platform_.fileSystem;
  const std::string* staging = stagingValue.string();
  bool isDirectory = false;
  if (!staging || !fs.exists(*staging, &isDirectory) || !isDirectory) {
    QLXHLog("Staging path %@ looks wrong.", stagingValue);
    return false;
  }
  // The old final tree goes first; if the move then fails it stays gone.
  if (fs.exists(paths_.finalStagingPath)) (void)fs.removeItem(paths_.finalStagingPath);
  platform::Status moved = fs.moveItem(*staging, paths_.finalStagingPath);
  if (!moved) {
    QLXHLog("Could not move %@ to %@ with error - %@", *staging, paths_.finalStagingPath,
            moved.error());
    return false;
  }
  return true;
}
