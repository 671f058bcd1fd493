// Passes every call to another registry; a test overrides the call it
// wants to fail.
#pragma once

#include "platform/HardwareRegistry.h"

namespace platform::testing {

class ForwardingHardwareRegistry : public HardwareRegistry {
 public:
  explicit ForwardingHardwareRegistry(HardwareRegistry& inner) : inner_(inner) {}

  Result<RegistryNode> lookUp(const std::string& path) override { return inner_.lookUp(path); }
  Status setProperty(const RegistryNode& node, const std::string& name,
                     const Value& value) override {
    return inner_.setProperty(node, name, value);
  }
  std::optional<std::string> partitionUUIDForBSDName(const std::string& bsdName) override {
    return inner_.partitionUUIDForBSDName(bsdName);
  }

 protected:
  HardwareRegistry& inner_;
};

}  // namespace platform::testing
