// A small JSON reader and writer for the command-line client: objects keep
// the order their keys were written in, since requests are served in it.
#pragma once

#include <string>
#include <string_view>

#include "ovix/Object.h"

namespace vexdctl {

// Integers become int64 (uint64 above its range), other numbers double,
// null null, objects dictionaries and arrays arrays. Duplicate keys, invalid
// UTF-8, nesting deeper than a message may be and trailing text are errors.
bool parseJson(std::string_view text, ovix::Object& out, std::string& error);

// One line of JSON. Data is written as a hex string, a date as its
// nanoseconds since 1970, a UUID in its usual text form.
std::string toJson(const ovix::Object& value);

std::string hex(const ovix::Bytes& bytes);

}  // namespace vexdctl
