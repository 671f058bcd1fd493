#include "vexd_helper/OvixDictConv.h"

#include "logging/QLXHLog.h"
#include "ovix/Object.h"

namespace ovixdictConv {

std::optional<platform::Dictionary> dictionaryWithOvixDictionary(const ovix::Object& object) {
  if (!object.isDictionary()) return std::nullopt;
  return initWithOvixDictionary(object);
}

platform::Dictionary initWithOvixDictionary(const ovix::Object& object) {
  platform::Dictionary result;
  object.apply([&](const std::string& key, const ovix::Object& value) {
    switch (value.type()) {
      case ovix::Type::Bool:
        result.set(key, value.boolValue());
        break;
      case ovix::Type::String:
        result.set(key, value.stringValue());
        break;
      case ovix::Type::Int64:
        result.set(key, value.int64Value());
        break;
      case ovix::Type::Dictionary:
        result.set(key, initWithOvixDictionary(value));
        break;
      default:
        QLXHLog("The value for key %@ has a type that is not supported yet", key);
        break;
    }
    return true;  // the visit always goes on to the end
  });
  return result;
}

std::optional<ovix::Object> createOvixDictionary(const platform::Dictionary&) {
  return std::nullopt;
}

}  // namespace ovixdictConv
