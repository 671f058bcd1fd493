#include "platform/EntitlementGrant.h"

#include <algorithm>

namespace platform {

namespace {

// The highest ID an account can have: (uint32_t)-1 means "no ID" to the
// kernel.
constexpr std::uint64_t kMaxID = 0xfffffffeULL;

// Reads "Users" or "Groups": an array of IDs and names. Nothing when the
// list is malformed; an absent key is an empty optional inside.
std::optional<std::optional<std::vector<EntitlementGrant::Account>>> readAccounts(
    const Value* list) {
  using Accounts = std::vector<EntitlementGrant::Account>;
  if (list == nullptr) return std::optional<Accounts>();
  const Array* entries = list->array();
  if (entries == nullptr) return std::nullopt;
  Accounts accounts;
  for (const Value& entry : *entries) {
    if (entry.isInteger()) {
      bool negative = entry.type() == Value::Type::Int64 && entry.int64Value() < 0;
      if (negative || entry.uint64Value() > kMaxID) return std::nullopt;
      accounts.emplace_back(static_cast<std::uint32_t>(entry.uint64Value()));
    } else if (const std::string* name = entry.string()) {
      // A name cut short at a NUL would be another account's name.
      if (name->empty() || name->find('\0') != std::string::npos) return std::nullopt;
      accounts.emplace_back(*name);
    } else {
      return std::nullopt;
    }
  }
  return std::optional<Accounts>(std::move(accounts));
}

// "501" names uid 501 when no account is called "501", as chown reads it.
std::optional<std::uint32_t> numericName(const std::string& name) {
  if (name.size() > 10 ||
      !std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return std::nullopt;
  std::uint64_t id = std::stoull(name);
  if (id > kMaxID) return std::nullopt;
  return static_cast<std::uint32_t>(id);
}

bool anyMatches(const std::vector<EntitlementGrant::Account>& accounts,
                const std::vector<std::uint32_t>& ids, const AccountIDLookup& lookup) {
  for (const EntitlementGrant::Account& account : accounts) {
    std::optional<std::uint32_t> id;
    if (const std::uint32_t* number = std::get_if<std::uint32_t>(&account)) {
      id = *number;
    } else {
      const std::string& name = std::get<std::string>(account);
      id = lookup(name);
      if (!id) id = numericName(name);
    }
    if (id && std::find(ids.begin(), ids.end(), *id) != ids.end()) return true;
  }
  return false;
}

}  // namespace

std::optional<EntitlementGrant> EntitlementGrant::fromValue(const Value& value) {
  const Dictionary* grant = value.dictionary();
  if (grant == nullptr) return std::nullopt;
  const Value* program = grant->find("Program");
  const Value* entitlements = grant->find("Entitlements");
  if (!program || !program->string() || !entitlements || !entitlements->dictionary())
    return std::nullopt;
  auto users = readAccounts(grant->find("Users"));
  auto groups = readAccounts(grant->find("Groups"));
  if (!users || !groups) return std::nullopt;

  EntitlementGrant out;
  out.program_ = *program->string();
  out.entitlements_ = *entitlements->dictionary();
  out.users_ = std::move(*users);
  out.groups_ = std::move(*groups);
  return out;
}

bool EntitlementGrant::holdsFor(const GrantSender& sender, const AccountIDLookup& userID,
                                const AccountIDLookup& groupID) const {
  if (!restricted()) return true;
  if (users_ && anyMatches(*users_, {sender.uid}, userID)) return true;
  return groups_ && anyMatches(*groups_, sender.gids, groupID);
}

}  // namespace platform
