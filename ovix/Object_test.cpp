#include "ovix/Object.h"

#include <gtest/gtest.h>

#include <cmath>

namespace ovix {
namespace {

std::vector<std::string> keysOf(const Object& dict) {
  std::vector<std::string> keys;
  dict.apply([&](const std::string& k, const Object&) {
    keys.push_back(k);
    return true;
  });
  return keys;
}

TEST(OvixObjectDictionary, KeepsOrderAndLookupsThroughGrowthCopiesAndRemovals) {
  Object d = Object::makeDictionary();
  d.setInt64("zebra", 1);
  d.setInt64("apple", 2);
  d.setInt64("mango", 3);
  d.setString("apple", "replaced");
  EXPECT_EQ(keysOf(d), (std::vector<std::string>{"zebra", "apple", "mango"}));
  EXPECT_EQ(d.getString("apple"), "replaced");
  EXPECT_TRUE(d.remove("zebra"));
  EXPECT_FALSE(d.remove("zebra"));
  EXPECT_EQ(keysOf(d), (std::vector<std::string>{"apple", "mango"}));
  int seen = 0;
  EXPECT_FALSE(d.apply([&](const std::string&, const Object&) { return ++seen < 1; }));
  EXPECT_EQ(seen, 1);

  // Many short keys force reallocation, where a stale index would point at
  // moved-from storage; a copy is deep and keeps its own index.
  // Keys are appended, not `"k" + ...`: GCC 12 -O3 reads that as an overlapping copy.
  auto key = [](int i) { return std::string(1, 'k').append(std::to_string(i)); };
  for (int i = 0; i < 300; ++i) d.setInt64(key(i), i);
  Object copy = d;
  d.remove("k0");
  copy.setInt64("k1", -1);
  for (int i = 1; i < 300; ++i) EXPECT_EQ(d.getInt64(key(i)), i) << i;
  EXPECT_EQ(d.get("k0"), nullptr);
  EXPECT_NE(copy.get("k0"), nullptr);
  EXPECT_EQ(copy.getInt64("k1"), -1);

  Object outer = Object::makeDictionary();
  outer.set("inner", d);
  Object outerCopy = outer;
  outerCopy.get("inner")->setInt64("mango", 2);
  EXPECT_EQ(outer.getDictionary("inner")->getInt64("mango"), 3);
  EXPECT_FALSE(outerCopy == outer);
}

TEST(OvixObjectReads, WrongTypesReadAsEmptyNeverAsSomethingElse) {
  Object d = Object::makeDictionary();
  d.setString("s", "1");
  d.setInt64("i", 1);
  d.setBool("b", true);
  // A peer sending "1" or 1 where a boolean is expected must not read as YES.
  EXPECT_FALSE(d.getBool("s"));
  EXPECT_FALSE(d.getBool("i"));
  EXPECT_EQ(d.getInt64("b"), 0);
  EXPECT_EQ(d.getUInt64("i"), 0u);
  EXPECT_EQ(d.getString("i"), "");
  EXPECT_TRUE(d.getData("s").empty());
  EXPECT_EQ(d.getDictionary("s"), nullptr);
  EXPECT_EQ(d.getArray("missing"), nullptr);
  EXPECT_EQ(d.getUuid("s"), Uuid{});

  Object notDict = Object::makeInt64(5);
  notDict.setBool("x", true);
  EXPECT_EQ(notDict.count(), 0u);
  EXPECT_EQ(notDict.get("x"), nullptr);
  EXPECT_EQ(notDict.int64Value(), 5);
  Object array = Object::makeArray();
  array.append(Object::makeString("x"));
  EXPECT_EQ(array.at(0)->stringValue(), "x");
  EXPECT_EQ(array.at(1), nullptr);
}

TEST(OvixObjectErrors, CompareByKindSoEventsMatchTheWellKnownOnes) {
  Object copy = errorConnectionInvalid();
  EXPECT_EQ(copy, errorConnectionInvalid());
  EXPECT_FALSE(copy == errorTerminationImminent());
  // Same text, different kind: an arbitrary error is never mistaken for one.
  EXPECT_FALSE(Object::makeError(errorConnectionInvalid().errorDescription()) ==
               errorConnectionInvalid());
  EXPECT_FALSE(errorTerminationImminent().errorDescription().empty());
  EXPECT_EQ(Object::makeError("accept: boom").errorDescription(), "accept: boom");
  EXPECT_EQ(Object::makeInt64(1).errorDescription(), "");
}

TEST(OvixObjectEquality, NumbersOfDifferentTypesDiffer) {
  EXPECT_FALSE(Object::makeInt64(1) == Object::makeUInt64(1));
  EXPECT_FALSE(Object::makeInt64(1) == Object::makeBool(true));
  EXPECT_FALSE(Object::makeInt64(7) == Object::makeDate(7));
  EXPECT_EQ(Object::makeDouble(std::nan("")), Object::makeDouble(std::nan("")));
}

}  // namespace
}  // namespace ovix
