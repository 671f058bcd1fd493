// The request "restoreAttributes:".
#include "logging/QLXHLog.h"
#include "operations/QLXHOperations.h"
#include "vexd_helper/QLXHMessageResponder.h"


bool QLXHMessageResponder::restoreAttributes(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder restoreAttributes:]",
          parameter);
  return QLXHOperations::sharedInstance().restoreAttributesUnder(
      parameterValue(parameter, "StagingRootPath"), parameterValue(parameter, "ManifestPath"),
      parameterValue(parameter, "ContentType"), parameterValue(parameter, "Identifier"));
}
