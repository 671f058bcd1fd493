// libFuzzer target: a grant file's bytes as the grant reader takes them
// (property list, then the grant's shape and values), then the account check
// for a few senders, with names looked up in a fixed table.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "platform/EntitlementGrant.h"
#include "platform/PropertyList.h"

namespace {

std::optional<std::uint32_t> lookup(const std::string& name) {
  if (name == "root") return 0;
  if (name == "mobile") return 501;
  if (name == "wheel") return 0;
  return std::nullopt;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto parsed = platform::parsePropertyList(std::span(data, size));
  if (!parsed) return 0;
  auto grant = platform::EntitlementGrant::fromValue(*parsed);
  if (!grant) return 0;
  const platform::GrantSender senders[] = {{0, {0}}, {501, {501, 20}}, {65534, {}}};
  platform::Dictionary merged;
  for (const auto& sender : senders) {
    const bool holds = grant->holdsFor(sender, lookup, lookup);
    // A grant that names no accounts holds for everyone.
    if (!grant->restricted() && !holds) std::abort();
    if (holds)
      for (const auto& [key, value] : grant->entitlements()) merged.set(key, value);
  }
  (void)platform::Value(merged).description();
  return 0;
}
