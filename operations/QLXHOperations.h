// The one object through which every privileged action of the service is done.
#pragma once

#include <string>
#include <vector>

#include "platform/Value.h"

namespace platform {
struct Platform;
}

// The system's fixed paths and names. Production uses the defaults; tests
// point them into temporary trees.
struct QLXHOperationsPaths {
  std::string rootPreferencesDirectory = "/var/root/Library/Preferences/";
  std::string mobilePreferencesDirectory = "/var/mobile/Library/Preferences/";
  std::string preferencesFileName = "com.velmor.Quillex.plist";
  std::string mobileAccountName = "mobile";
  std::string stagingDirectoryName = "QLX_staging";
  std::string logFilePrefix = "vexd-";

  std::string dataAreaRoot = "/private/var";
  std::string dataAreaBase = "/private";
  std::vector<std::string> dataAreaSkipList = {
      "/private/var/mobile/Containers", "/private/var/containers",
      "/private/var/mobile/Applications", "/private/var/mobile/ForgekitBuiltProducts"};
  std::string deviceManifestPath = "/private/var/QLXWorkContainer/DeviceManifest.plist";
  std::string finalStagingPath = "/var/backup";

  std::string firmwareOptionsNode = "IODeviceTree:/options";
};

class QLXHOperations {
 public:
  QLXHOperations(platform::Platform& platform, QLXHOperationsPaths paths = {});

  // Made once, on first use, from the process-wide platform bundle.
  static QLXHOperations& sharedInstance();

  // Containers and preferences.
  bool migratePreferencesFile();
  bool prepareDirectory(const platform::Value& path, bool writableByMobile);
  bool prepareLogContainer(const platform::Value& path);
  bool removeDirectory(const platform::Value& path);

  // Device manifest, hard links and the staging move.
  bool createDeviceManifest(const platform::Value& path, bool inclusive);
  bool createHardLinks(const platform::Value& source, const platform::Value& stagingPath);
  bool moveStagingToFinal(const platform::Value& staging);

  // Attribute restore from a signed manifest.
  bool restoreAttributesUnder(const platform::Value& root, const platform::Value& manifestPath,
                              const platform::Value& containerType,
                              const platform::Value& identifier);

  // Firmware variables, reboot and quit.
  bool deleteNvram(const platform::Value& name);
  bool writeNVRam(const platform::Value& name, const platform::Value& value);
  bool reboot();
  [[noreturn]] void quitHelper();

  const QLXHOperationsPaths& paths() const { return paths_; }

 private:
  platform::Platform& platform_;
  QLXHOperationsPaths paths_;
};
