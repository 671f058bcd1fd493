// The registry's firmware-variable node over the EFI variable file system,
// and partition UUIDs from libblkid (see docs/firmware-variables.md).
#pragma once

#include <string>

#include "platform/HardwareRegistry.h"

namespace platform {

class LinuxHardwareRegistry : public HardwareRegistry {
 public:
  static constexpr const char* kOptionsNodePath = "IODeviceTree:/options";
  // Every variable the service writes lives under this vendor GUID.
  static constexpr const char* kVendorGuid = "0ed662fa-a416-483d-bda4-cc977b47eff4";
  static constexpr const char* kDeleteProperty = "IONVRAM-DELETE-PROPERTY";
  static constexpr const char* kSyncNowProperty = "IONVRAM-SYNCNOW-PROPERTY";
  // A file name holds 255 bytes; "-" and the GUID take 37 of them.
  static constexpr std::size_t kMaxVariableNameBytes = 255 - 37;

  explicit LinuxHardwareRegistry(std::string variableFolder = "/sys/firmware/efi/efivars",
                                 std::string deviceFolder = "/dev");

  Result<RegistryNode> lookUp(const std::string& path) override;
  Status setProperty(const RegistryNode& node, const std::string& name,
                     const Value& value) override;
  std::optional<std::string> partitionUUIDForBSDName(const std::string& bsdName) override;

 private:
  Result<std::string> variablePath(const std::string& name) const;
  Status writeVariable(const std::string& name, const Data& bytes);
  Status deleteVariable(const std::string& name);
  Status syncVariable(const std::string& name);

  std::string variableFolder_;
  std::string deviceFolder_;
};

}  // namespace platform
