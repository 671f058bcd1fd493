// The requests "deleteNvram:", "writeNvram:", "reboot:" and "quitHelper:".
#include "logging/QLXHLog.h"
#include "operations/QLXHOperations.h"
#include "vexd_helper/QLXHMessageResponder.h"


bool QLXHMessageResponder::deleteNvram(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder deleteNvram:]", parameter);
  return QLXHOperations::sharedInstance().deleteNvram(parameter);
}

bool QLXHMessageResponder::writeNvram(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder writeNvram:]", parameter);
  return QLXHOperations::sharedInstance().writeNVRam(parameterValue(parameter, "Name"),
                                                     parameterValue(parameter, "Value"));
}

bool QLXHMessageResponder::reboot(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder reboot:]", parameter);
  return QLXHOperations::sharedInstance().reboot();
}

bool QLXHMessageResponder::quitHelper(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder quitHelper:]", parameter);
  QLXHOperations::sharedInstance().quitHelper();
}
