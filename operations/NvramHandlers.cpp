// The requests "deleteNvram:", "writeNvram:", "reboot:" and "quitHelper:".
#include "logging/QLXHLog.h"
#include "operations/QLXHOperations.h"
#include "vexd_helper/QLXHMessageResponder.h"

namespace {

// A plain lookup: an absent key, or a parameter that is no dictionary,
// passes an absent value on.
platform::Value lookUp(const platform::Value& parameter, const char* key) {
  const platform::Dictionary* d = parameter.dictionary();
  const platform::Value* v = d ? d->find(key) : nullptr;
  return v ? *v : platform::Value();
}

}  // namespace

bool QLXHMessageResponder::deleteNvram(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder deleteNvram:]", parameter);
  return QLXHOperations::sharedInstance().deleteNvram(parameter);
}

bool QLXHMessageResponder::writeNvram(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder writeNvram:]", parameter);
  return QLXHOperations::sharedInstance().writeNVRam(lookUp(parameter, "Name"),
                                                     lookUp(parameter, "Value"));
}

bool QLXHMessageResponder::reboot(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder reboot:]", parameter);
  return QLXHOperations::sharedInstance().reboot();
}

bool QLXHMessageResponder::quitHelper(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder quitHelper:]", parameter);
  QLXHOperations::sharedInstance().quitHelper();
}
