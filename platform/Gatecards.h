// Per-process credentials: who a client is and which entitlements it holds.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/AuditToken.h"
#include "platform/Value.h"

namespace platform {

class Gatecard {
 public:
  virtual ~Gatecard() = default;
  // The entitlement's value as granted, of any type; none when not granted.
  virtual std::optional<Value> copyEntitlementValue(const std::string& name) = 0;
};

class Gatecards {
 public:
  virtual ~Gatecards() = default;
  // None when the token no longer names a live process we can identify.
  virtual std::unique_ptr<Gatecard> createFromAuditToken(const AuditToken& token) = 0;
};

}  // namespace platform
