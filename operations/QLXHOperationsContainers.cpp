// Preferences migration and container housekeeping.
#include "logging/QLXHLog.h"
#include "operations/QLXHOperations.h"
#include "platform/FileSystem.h"
#include "platform/Path.h"
#include "platform/Platform.h"

namespace {

constexpr const char* kPrepareDirectoryMethod =
    "-[QLXHOperations prepareDirectory:writableByMobile:]";

// The path a request handed over, if it is one. An absent path fails as the
// file system would fail it; another type is refused with a line saying so.
const std::string* requestPath(const platform::Value& value) {
  if (const std::string* path = value.string()) return path;
  if (!value.isNull()) QLXHLog("%@ is not a path", value);
  return nullptr;
}

platform::Dictionary mobileOwnership(const std::string& account) {
  platform::Dictionary attributes;
  attributes.set(platform::attr::kOwnerAccountName, account);
  attributes.set(platform::attr::kGroupOwnerAccountName, account);
  return attributes;
}

}  // namespace

bool QLXHOperations::migratePreferencesFile() {
  platform::FileSystem& fs = *platform_.fileSystem;
  std::string source =
      platform::appendPathComponent(paths_.rootPreferencesDirectory, paths_.preferencesFileName);
  std::string destination =
      platform::appendPathComponent(paths_.mobilePreferencesDirectory, paths_.preferencesFileName);
  // Nothing to migrate, or a destination that must never be overwritten:
  // both are a quiet NO.
  if (!fs.exists(source) || fs.exists(destination)) return false;
  if (!fs.moveItem(source, destination)) {
    QLXHLog("Couldn't move %@ to %@", source, destination);
    return false;
  }
  if (!fs.setAttributes(mobileOwnership(paths_.mobileAccountName), destination)) {
    QLXHLog("Couldn't change ownership for %@", destination);
    return false;
  }
  return true;
}

bool QLXHOperations::prepareDirectory(const platform::Value& pathValue, bool writableByMobile) {
  const std::string* path = requestPath(pathValue);
  if (!path) return false;
  platform::FileSystem& fs = *platform_.fileSystem;
  if (!fs.exists(*path) && !fs.createDirectory(*path, true)) return false;

  if (writableByMobile) {
    auto attributes = fs.attributesOfItem(*path);
    if (!attributes) {
      // Logged with only the path, which lands in the "%s" slot.
      QLXHLog("%s: Cannot get attribute from %@", *path);
      return false;
    }
    const platform::Value* mode = attributes->find(platform::attr::kPosixPermissions);
    auto permissions =
        static_cast<std::uint16_t>((mode ? mode->uint64Value() : 0) | 077);
    platform::Dictionary change;
    change.set(platform::attr::kPosixPermissions, static_cast<std::uint64_t>(permissions));
    platform::Status set = fs.setAttributes(change, *path);
    if (!set) {
      QLXHLog("%s: Cannot set attribute for %@ - %@", *path, set.error());
      return false;
    }
  }

  std::string staging = platform::appendPathComponent(*path, paths_.stagingDirectoryName);
  if (fs.exists(staging)) {
    platform::Status removed = fs.removeItem(staging);
    if (!removed) {
      QLXHLog("%s: Could not remove the path %@ with error - %@(0x%x)", kPrepareDirectoryMethod,
              staging, removed.error(), removed.error().code);
      return false;
    }
  }
  return true;
}

bool QLXHOperations::prepareLogContainer(const platform::Value& pathValue) {
  if (!prepareDirectory(pathValue, true)) return false;
  const std::string& path = *pathValue.string();
  platform::FileSystem& fs = *platform_.fileSystem;
  auto names = fs.contentsOfDirectory(path);
  if (!names) return true;
  platform::Dictionary ownership = mobileOwnership(paths_.mobileAccountName);
  for (const std::string& name : *names) {
    // Only the demo daemon's own log files; the outcome is not checked.
    if (platform::hasPrefix(name, paths_.logFilePrefix))
      (void)fs.setAttributes(ownership, platform::appendPathComponent(path, name));
  }
  return true;
}

bool QLXHOperations::removeDirectory(const platform::Value& pathValue) {
  const std::string* path = requestPath(pathValue);
  if (!path) return false;
  platform::FileSystem& fs = *platform_.fileSystem;
  if (!fs.exists(*path)) return true;
  return fs.removeItem(*path).ok();
}
