// Makes per-process credentials from the audit token taken when a client
// connected.
#pragma once

#include "platform/AuditToken.h"
#include "platform/Gatecard.h"
#include "platform/Result.h"

namespace platform {

class Gatecards {
 public:
  virtual ~Gatecards() = default;
  // Fails when the token no longer names a live process (it exited, or its
  // pid now belongs to another process) or its program cannot be read.
  virtual Result<Gatecard> createFromAuditToken(const AuditToken& token) = 0;
};

}  // namespace platform
