// Requests for the device manifest, hard links and the staging move.
#include "logging/QLXHLog.h"
#include "operations/QLXHOperations.h"
#include "vexd_helper/QLXHMessageResponder.h"


bool QLXHMessageResponder::createDeviceManifest(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder createDeviceManifest:]",
          parameter);
  return QLXHOperations::sharedInstance().createDeviceManifest(
      parameterValue(parameter, "Path"), parameterValue(parameter, "Inclusive").boolValue());
}

bool QLXHMessageResponder::createHardLink(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder createHardLink:]",
          parameter);
  return QLXHOperations::sharedInstance().createHardLinks(parameterValue(parameter, "FilePath"),
                                                          parameterValue(parameter, "StagingPath"));
}

bool QLXHMessageResponder::moveStagingToFinal(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder moveStagingToFinal:]",
          parameter);
  return QLXHOperations::sharedInstance().moveStagingToFinal(parameter);
}
