#include <gtest/gtest.h>

#include "platform/Value.h"

namespace platform {
namespace {

// Small dictionaries are scanned and large ones indexed; growing and
// shrinking across that line must not lose, duplicate or reorder keys, and
// replacing a value keeps its key's place at either size.
TEST(DictionaryIndexTest, LookupsHoldWhileGrowingAndShrinkingAcrossTheIndexLine) {
  Dictionary d;
  std::vector<std::string> order;
  for (int i = 0; i < 40; ++i) {
    std::string key = "a fairly long key number " + std::to_string(i);
    d.set(key, i);
    order.push_back(key);
    if (i == 2) {
      d.set(order[1], 100);
      ASSERT_EQ(d.find(order[1])->int64Value(), 100);
      d.set(order[1], 1);
    }
    for (int j = 0; j <= i; ++j) ASSERT_EQ(d.find(order[j])->int64Value(), j) << i << " " << j;
    ASSERT_EQ(d.keys(), order);
    ASSERT_FALSE(d.find("missing"));
  }
  d.set(order[3], 300);  // replacing keeps the place
  EXPECT_EQ(d.keys(), order);
  EXPECT_EQ(d.find(order[3])->int64Value(), 300);

  Dictionary copy = d;
  while (!order.empty()) {
    std::size_t victim = order.size() / 2;
    ASSERT_TRUE(d.erase(d.begin()[static_cast<long>(victim)].first));
    order.erase(order.begin() + static_cast<long>(victim));
    ASSERT_EQ(d.keys(), order);
    for (const auto& key : order) ASSERT_TRUE(d.find(key)) << key;
  }
  EXPECT_TRUE(d.empty());
  EXPECT_EQ(copy.size(), 40u);
  EXPECT_EQ(copy.find("a fairly long key number 39")->int64Value(), 39);
}

}  // namespace
}  // namespace platform
