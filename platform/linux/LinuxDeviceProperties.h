// Device questions answered from the firmware and the file systems.
#pragma once

#include <string>

#include "platform/DeviceProperties.h"

namespace platform {

struct DevicePropertyPaths {
  std::string efiVariables = "/sys/firmware/efi/efivars";
  std::string dataVolume = "/private/var";
};

class LinuxDeviceProperties : public DeviceProperties {
 public:
  explicit LinuxDeviceProperties(DevicePropertyPaths paths = {});

  // "SigningFuse": a boolean, or no answer when the firmware does not say.
  // "DiskUsage": {"TotalDataAvailable", "TotalDataCapacity"} in bytes.
  std::optional<Value> copyAnswer(const std::string& question) override;

 private:
  std::optional<Value> signingFuse();
  std::optional<Value> diskUsage();

  DevicePropertyPaths paths_;
};

}  // namespace platform
