// The request "restoreAttributes:".
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

bool QLXHMessageResponder::restoreAttributes(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder restoreAttributes:]",
          parameter);
  return QLXHOperations::sharedInstance().restoreAttributesUnder(
      lookUp(parameter, "StagingRootPath"), lookUp(parameter, "ManifestPath"),
      lookUp(parameter, "ContentType"), lookUp(parameter, "Identifier"));
}
