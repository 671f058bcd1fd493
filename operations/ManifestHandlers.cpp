// Requests for the device manifest, hard links and the staging move.
#include "logging/QLXHLog.h"
#include "operations/QLXHOperations.h"
#include "vexd_helper/QLXHMessageResponder.h"

namespace {

// A plain lookup: an absent key (or a parameter that is no dictionary)
// passes an absent value on.
platform::Value lookup(const platform::Value& parameter, const char* key) {
  const platform::Dictionary* d = parameter.dictionary();
  const platform::Value* v = d ? d->find(key) : nullptr;
  return v ? *v : platform::Value();
}

}  // namespace

bool QLXHMessageResponder::createDeviceManifest(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder createDeviceManifest:]",
          parameter);
  return QLXHOperations::sharedInstance().createDeviceManifest(
      lookup(parameter, "Path"), lookup(parameter, "Inclusive").boolValue());
}

bool QLXHMessageResponder::createHardLink(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder createHardLink:]",
          parameter);
  return QLXHOperations::sharedInstance().createHardLinks(lookup(parameter, "FilePath"),
                                                          lookup(parameter, "StagingPath"));
}

bool QLXHMessageResponder::moveStagingToFinal(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder moveStagingToFinal:]",
          parameter);
  return QLXHOperations::sharedInstance().moveStagingToFinal(parameter);
}
