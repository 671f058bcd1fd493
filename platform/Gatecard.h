// A client's credential: the program a connected process runs and the
// entitlements granted to that program.
#pragma once

#include <optional>
#include <string>

#include "platform/Value.h"

namespace platform {

struct Gatecard {
  std::string program;      // absolute path of the running executable
  Dictionary entitlements;  // every grant for that program, merged

  // The value as granted, of whatever type it was written with; none when
  // the program holds no such entitlement.
  std::optional<Value> valueForEntitlement(const std::string& name) const {
    const Value* v = entitlements.find(name);
    return v ? std::optional<Value>(*v) : std::nullopt;
  }
};

}  // namespace platform
