// Answers to device questions such as "SigningFuse" and "DiskUsage".
#pragma once

#include <optional>
#include <string>

#include "platform/Value.h"

namespace platform {

class DeviceProperties {
 public:
  virtual ~DeviceProperties() = default;
  // No value when the device has no answer to the question.
  virtual std::optional<Value> copyAnswer(const std::string& question) = 0;
};

}  // namespace platform
