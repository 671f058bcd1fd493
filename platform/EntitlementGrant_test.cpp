#include "platform/EntitlementGrant.h"

#include <gtest/gtest.h>

#include <map>

namespace platform {
namespace {

const char* kProgram = "/usr/local/bin/vexdctl";

Value grantWith(Dictionary accounts) {
  Dictionary grant{{"Program", kProgram}, {"Entitlements", Dictionary{{"x.granted", true}}}};
  for (const auto& [key, value] : accounts) grant.set(key, value);
  return Value(std::move(grant));
}

// A small account database: root 0, mobile 501, the user named "1000" has
// uid 2000; groups wheel 10, mobile 501.
struct Accounts {
  std::map<std::string, std::uint32_t> users{{"root", 0}, {"mobile", 501}, {"1000", 2000}};
  std::map<std::string, std::uint32_t> groups{{"wheel", 10}, {"mobile", 501}};
  AccountIDLookup userID = [this](const std::string& n) { return find(users, n); };
  AccountIDLookup groupID = [this](const std::string& n) { return find(groups, n); };
  static std::optional<std::uint32_t> find(const std::map<std::string, std::uint32_t>& m,
                                           const std::string& name) {
    auto it = m.find(name);
    return it == m.end() ? std::nullopt : std::optional<std::uint32_t>(it->second);
  }
};

class EntitlementGrantTest : public ::testing::Test {
 protected:
  // Whether a grant with these accounts holds for the sender.
  bool holds(Dictionary accountLists, GrantSender sender) {
    auto grant = EntitlementGrant::fromValue(grantWith(std::move(accountLists)));
    EXPECT_TRUE(grant);
    return grant && grant->holdsFor(sender, accounts.userID, accounts.groupID);
  }
  Accounts accounts;
  GrantSender root{0, {0}}, mobile{501, {501}}, nobody{65534, {65534}};
};

TEST_F(EntitlementGrantTest, TheShapeOfAGrant) {
  auto grant = EntitlementGrant::fromValue(grantWith({}));
  ASSERT_TRUE(grant);
  EXPECT_EQ(grant->program(), kProgram);
  EXPECT_EQ(grant->entitlements(), (Dictionary{{"x.granted", true}}));
  EXPECT_FALSE(grant->restricted());

  Dictionary noEntitlements{{"Program", kProgram}};
  Dictionary entitlementsNotADictionary{{"Program", kProgram}, {"Entitlements", Array{"x"}}};
  Dictionary programNotAString{{"Program", 5}, {"Entitlements", Dictionary{}}};
  for (const Value& notAGrant : {Value(noEntitlements), Value(entitlementsNotADictionary),
                                 Value(programNotAString), Value(Array{}), Value("text")})
    EXPECT_FALSE(EntitlementGrant::fromValue(notAGrant)) << notAGrant.description();
}

TEST_F(EntitlementGrantTest, AMalformedAccountListVoidsTheGrant) {
  const Value malformed[] = {
      Value("mobile"),  // one name, not a list
      Value(501),
      Value(Dictionary{{"mobile", true}}),
      Value(Array{"mobile", true}),  // a boolean is no ID
      Value(Array{501.0}),
      Value(Array{-1}),
      Value(Array{std::uint64_t{0xffffffffULL}}),
      Value(Array{""}),
      Value(Array{std::string("root\0x", 6)}),  // would be looked up as "root"
      Value(Array{Data{'r'}}),
      Value(Array{Value(Array{"root"})}),  // nested; a bare Array{Array{}} may be a copy
  };
  for (const char* key : {"Users", "Groups"}) {
    for (const Value& list : malformed) {
      EXPECT_FALSE(EntitlementGrant::fromValue(grantWith({{key, list}})))
          << key << " = " << list.description();
      // The well-formed list beside it does not save the grant.
      const char* other = std::string(key) == "Users" ? "Groups" : "Users";
      EXPECT_FALSE(EntitlementGrant::fromValue(grantWith({{key, list}, {other, Array{0}}})));
    }
  }
  // The largest ID an account can have is still one.
  EXPECT_TRUE(
      EntitlementGrant::fromValue(grantWith({{"Users", Array{std::uint64_t{0xfffffffeULL}, 0}}})));
}

TEST_F(EntitlementGrantTest, UsersAreMatchedByTheSendersUid) {
  EXPECT_TRUE(holds({{"Users", Array{"root"}}}, root));
  EXPECT_FALSE(holds({{"Users", Array{"root"}}}, mobile));
  EXPECT_TRUE(holds({{"Users", Array{"root", 501}}}, mobile));
  EXPECT_FALSE(holds({{"Users", Array{"root", 501}}}, nobody));
  // The uid is what counts, not a group that happens to have the same number.
  EXPECT_FALSE(holds({{"Users", Array{"root"}}}, GrantSender{501, {0}}));
  // An empty list is a restriction to no one.
  EXPECT_FALSE(holds({{"Users", Array{}}}, root));
}

TEST_F(EntitlementGrantTest, GroupsAreMatchedByPrimaryAndSupplementaryGroups) {
  EXPECT_TRUE(holds({{"Groups", Array{"wheel"}}}, GrantSender{1234, {1234, 10}}));
  EXPECT_TRUE(holds({{"Groups", Array{10}}}, GrantSender{1234, {10}}));
  EXPECT_FALSE(holds({{"Groups", Array{"wheel"}}}, GrantSender{10, {1234}}));
  // Either list admits: a user listed, or a member of a group listed.
  Dictionary both{{"Users", Array{"root"}}, {"Groups", Array{"mobile"}}};
  EXPECT_TRUE(holds(both, root));
  EXPECT_TRUE(holds(both, GrantSender{777, {100, 501}}));
  EXPECT_FALSE(holds(both, nobody));
}

TEST_F(EntitlementGrantTest, NamesAreLookedUpAndUnknownNamesMatchNoOne) {
  // An unknown name is not an error: the rest of the list still counts.
  EXPECT_FALSE(holds({{"Users", Array{"ghost"}}}, root));
  EXPECT_TRUE(holds({{"Users", Array{"ghost", "mobile"}}}, mobile));
  // A name made of digits is an ID only when no account has that name.
  EXPECT_TRUE(holds({{"Users", Array{"65534"}}}, nobody));
  EXPECT_TRUE(holds({{"Users", Array{"1000"}}}, GrantSender{2000, {2000}}));
  EXPECT_FALSE(holds({{"Users", Array{"1000"}}}, GrantSender{1000, {1000}}));
  EXPECT_FALSE(holds({{"Users", Array{"4294967295"}}}, GrantSender{0xffffffffu, {}}));
  // Lookups happen at each check, so an account made later is seen.
  auto grant = EntitlementGrant::fromValue(grantWith({{"Groups", Array{"staff"}}}));
  EXPECT_FALSE(grant->holdsFor(GrantSender{1, {50}}, accounts.userID, accounts.groupID));
  accounts.groups["staff"] = 50;
  EXPECT_TRUE(grant->holdsFor(GrantSender{1, {50}}, accounts.userID, accounts.groupID));
}

}  // namespace
}  // namespace platform
