// Requests for preferences and containers.
#include "logging/QLXHLog.h"
#include "operations/QLXHOperations.h"
#include "platform/Path.h"
#include "vexd_helper/QLXHMessageResponder.h"

bool QLXHMessageResponder::migratePreferencesFile(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder migratePreferencesFile:]",
          parameter);
  return QLXHOperations::sharedInstance().migratePreferencesFile();
}

bool QLXHMessageResponder::prepareLogContainer(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder prepareLogContainer:]",
          parameter);
  if (!parameter.isNull()) {
    // A plain prefix test on the text, as the demo daemon relies on; it
    // resolves neither "..", links nor doubled slashes.
    const std::string* path = parameter.string();
    bool allowed = path && (platform::hasPrefix(*path, "/private/var/logs") ||
                            platform::hasPrefix(*path, "/var/logs"));
    if (!allowed) {
      QLXHLog("%s: creating logs under %@ is not allowed.");
      return false;
    }
  }
  return QLXHOperations::sharedInstance().prepareLogContainer(parameter);
}

bool QLXHMessageResponder::prepareWorkContainer(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder prepareWorkContainer:]",
          parameter);
  return QLXHOperations::sharedInstance().prepareDirectory(parameter, true);
}

bool QLXHMessageResponder::removeWorkContainer(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder removeWorkContainer:]",
          parameter);
  return QLXHOperations::sharedInstance().removeDirectory(parameter);
}
