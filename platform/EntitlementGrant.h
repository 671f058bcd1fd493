// One entitlement grant as its file states it: the program, what it is
// granted, and optionally the accounts it is granted to (see
// docs/entitlements.md). Reading a grant touches nothing outside the value,
// so untrusted bytes can be fed straight to it once parsed.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "platform/Value.h"

namespace platform {

// The sender of a message as a grant judges it: the user and group IDs of
// its credential, then the supplementary groups of its process.
struct GrantSender {
  std::uint32_t uid = 0;
  std::vector<std::uint32_t> gids;
};

// An account name's ID; nothing when no account has that name.
using AccountIDLookup = std::function<std::optional<std::uint32_t>(const std::string&)>;

class EntitlementGrant {
 public:
  // An entry of "Users" or "Groups": a numeric ID or an account name.
  using Account = std::variant<std::uint32_t, std::string>;

  // The grant a property-list value states; nothing when the value is not
  // one. A malformed "Users" or "Groups" voids the whole grant: reading
  // less than was written could only widen it.
  static std::optional<EntitlementGrant> fromValue(const Value& value);

  const std::string& program() const { return program_; }
  const Dictionary& entitlements() const { return entitlements_; }
  bool restricted() const { return users_.has_value() || groups_.has_value(); }

  // True when the grant holds for the sender: it names no accounts, or the
  // sender's uid is among its users, or one of the sender's groups among
  // its groups. Names are looked up at the time of the check.
  bool holdsFor(const GrantSender& sender, const AccountIDLookup& userID,
                const AccountIDLookup& groupID) const;

 private:
  std::string program_;
  Dictionary entitlements_;
  std::optional<std::vector<Account>> users_;
  std::optional<std::vector<Account>> groups_;
};

}  // namespace platform
