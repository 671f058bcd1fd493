// The hardware registry: nodes found by path whose named properties can be
// set (on Linux, the firmware variables of "IODeviceTree:/options"), and
// the partition identity of block devices.
#pragma once

#include <optional>
#include <string>

#include "platform/Result.h"
#include "platform/Value.h"

namespace platform {

// A node as found by HardwareRegistry::lookUp; looked up afresh per use.
struct RegistryNode {
  std::string path;
};

class HardwareRegistry {
 public:
  virtual ~HardwareRegistry() = default;

  // Fails when the registry has no node at that path.
  virtual Result<RegistryNode> lookUp(const std::string& path) = 0;
  // Sets a property of the node to a string or data value; any other
  // type, and any name or value the node cannot hold, fails.
  virtual Status setProperty(const RegistryNode& node, const std::string& name,
                             const Value& value) = 0;
  // The "UUID" of the partition a block device name (such as "disk0s2")
  // stands for, in upper case; nothing when it is not a partition.
  virtual std::optional<std::string> partitionUUIDForBSDName(const std::string& bsdName) = 0;
};

}  // namespace platform
