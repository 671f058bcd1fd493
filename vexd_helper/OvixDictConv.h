// Request decoding: Ovix dictionaries into the platform's plain dictionaries.
// Only strings, booleans, 64-bit signed integers and nested dictionaries
// survive; every other value is dropped with a log line.
#pragma once

#include <optional>

#include "platform/Value.h"

namespace ovix {
class Object;
}

namespace ovixdictConv {

// Nothing when the object is not a dictionary.
std::optional<platform::Dictionary> dictionaryWithOvixDictionary(const ovix::Object& object);
platform::Dictionary initWithOvixDictionary(const ovix::Object& object);
// The service never converts back; this answers nothing in every case.
std::optional<ovix::Object> createOvixDictionary(const platform::Dictionary& dictionary);

}  // namespace ovixdictConv
