// Property lists: parse binary or XML, write binary (or XML for people).
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/Result.h"
#include "platform/Value.h"

namespace platform {

// Parses a binary or XML property list of any top-level type.
Result<Value> parsePropertyList(std::span<const std::uint8_t> bytes);
// Reads a whole file (or stream such as a pipe) and parses it.
Result<Value> readPropertyListFile(const std::string& path);
Result<Data> writeBinaryPropertyList(const Value& value);
Result<std::string> writeXmlPropertyList(const Value& value);

}  // namespace platform
