// Credentials from /proc and entitlement grants from root-owned property
// lists, each for a program and optionally for some accounts only (see
// docs/entitlements.md).
#pragma once

#include <string>

#include "platform/EntitlementGrant.h"
#include "platform/Gatecards.h"
#include "platform/linux/LinuxAccountNames.h"

namespace platform {

class LinuxGatecards : public Gatecards {
 public:
  static constexpr const char* kDefaultGrantDirectory = "/etc/ovix/entitlements.d";

  explicit LinuxGatecards(std::string grantDirectory = kDefaultGrantDirectory);

  Result<Gatecard> createFromAuditToken(const AuditToken& token) override;

 private:
  Dictionary grantsFor(const std::string& program, const GrantSender& sender);

  std::string grantDirectory_;
  LinuxAccountNames accounts_;
};

}  // namespace platform
