// Credentials from /proc and entitlement grants from root-owned property
// lists (see docs/entitlements.md).
#pragma once

#include <string>

#include "platform/Gatecards.h"

namespace platform {

class LinuxGatecards : public Gatecards {
 public:
  static constexpr const char* kDefaultGrantDirectory = "/etc/ovix/entitlements.d";

  explicit LinuxGatecards(std::string grantDirectory = kDefaultGrantDirectory);

  Result<Gatecard> createFromAuditToken(const AuditToken& token) override;

 private:
  Dictionary grantsFor(const std::string& program);

  std::string grantDirectory_;
};

}  // namespace platform
