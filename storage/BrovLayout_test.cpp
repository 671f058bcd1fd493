#include "storage/BrovLayout.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/testing/CapturedStderr.h"

namespace {

using platform::testing::capturedStderr;

constexpr std::uint64_t kFirstUsable = 3;
constexpr std::uint64_t kLastUsable = 1021;

class BrovLayout : public ::testing::Test {
 protected:
  void SetUp() override {
    capturedStderr([&] { brovInitMediaGeometry(&geometry, 1024 * 4096, 4096); });
    platform::gpt::store64(&header.bytes[platform::gpt::kFirstUsableLba], kFirstUsable);
    platform::gpt::store64(&header.bytes[platform::gpt::kLastUsableLba], kLastUsable);
  }

  void layOut(const std::vector<std::pair<std::uint64_t, std::uint64_t>>& extents) {
    for (std::size_t i = 0; i < extents.size(); ++i) {
      table[i].setFirstLBA(extents[i].first);
      table[i].setLastLBA(extents[i].second);
      table[i].bytes[platform::gpt::kAttributes] = static_cast<std::uint8_t>(0xA0 + i);
    }
    header.setEntryCount(static_cast<std::int32_t>(extents.size()));
  }

  int adjust(std::int32_t index, std::uint64_t bytes) {
    int r = 0;
    said =
        capturedStderr([&] { r = brovAdjustPartition(&geometry, &header, &table, index, bytes); });
    return r;
  }

  std::pair<std::uint64_t, std::uint64_t> extent(int i) const {
    return {table[i].firstLBA(), table[i].lastLBA()};
  }

  BrovMediaGeometry geometry;
  GPTHeader header;
  GPTEntryTable table;
  std::string said;
};

using Extent = std::pair<std::uint64_t, std::uint64_t>;

TEST_F(BrovLayout, GrowingAMiddlePartitionMovesEveryLaterOneByTheGrowth) {
  layOut({{3, 102}, {103, 502}, {503, 602}, {603, 612}});
  ASSERT_EQ(adjust(1, 449 * 4096 + 1), 0);  // rounds up to 450 blocks
  EXPECT_EQ(extent(0), Extent(3, 102));
  EXPECT_EQ(extent(1), Extent(103, 552));
  EXPECT_EQ(extent(2), Extent(553, 652));
  EXPECT_EQ(extent(3), Extent(653, 662));
  EXPECT_EQ(header.entryCount(), 4);
  EXPECT_EQ(said, "");
}

TEST_F(BrovLayout, PackingRemovesGapsAndFollowsStartOrderNotTableOrder) {
  // Table order differs from disk order, with gaps in between.
  layOut({{700, 709}, {50, 59}, {300, 319}});
  ASSERT_EQ(adjust(2, 20 * 4096), 0);  // same size: only the packing acts
  EXPECT_EQ(extent(1), Extent(3, 12));
  EXPECT_EQ(extent(2), Extent(13, 32));
  EXPECT_EQ(extent(0), Extent(33, 42));
  EXPECT_EQ(table[0].bytes[platform::gpt::kAttributes], 0xA0);  // entries stay in place
}

TEST_F(BrovLayout, EqualStartsKeepTheirTableOrder) {
  layOut({{40, 44}, {40, 46}, {10, 11}});
  ASSERT_EQ(adjust(2, 2 * 4096), 0);
  EXPECT_EQ(extent(2), Extent(3, 4));
  EXPECT_EQ(extent(0), Extent(5, 9));
  EXPECT_EQ(extent(1), Extent(10, 16));
}

TEST_F(BrovLayout, CreatingPlacesTheNewPartitionAfterAllOthers) {
  layOut({{3, 102}, {103, 202}});
  ASSERT_EQ(adjust(2, 30 * 4096), 0);
  EXPECT_EQ(header.entryCount(), 3);
  EXPECT_EQ(extent(2), Extent(203, 232));
  GPTEntry& created = table[2];
  EXPECT_TRUE(std::equal(platform::gpt::kMarlPartitionType.begin(),
                         platform::gpt::kMarlPartitionType.end(), created.typeGUID().begin()));
  const std::uint8_t name[] = {'N', 0, 'e', 0, 'w', 0, 0, 0};
  EXPECT_TRUE(std::equal(std::begin(name), std::end(name), created.name().begin()));
  EXPECT_EQ(created.uniqueGUID()[6] >> 4, 4);  // a random (version 4) GUID

  GPTEntry first = created;
  layOut({{3, 102}, {103, 202}});
  ASSERT_EQ(adjust(2, 30 * 4096), 0);
  EXPECT_FALSE(std::equal(first.uniqueGUID().begin(), first.uniqueGUID().end(),
                          table[2].uniqueGUID().begin()));
}

TEST_F(BrovLayout, CreatingAZeroSizedPartitionIsRefused) {
  layOut({{3, 102}});
  EXPECT_EQ(adjust(1, 0), -1);
  EXPECT_EQ(said, "brov: cannot create zero-sized partition\n");
  EXPECT_EQ(header.entryCount(), 1);
}

TEST_F(BrovLayout, DeletingTheLastPartitionLeavesAZeroedEntryBehindTheCount) {
  layOut({{3, 102}, {103, 202}, {203, 302}});
  ASSERT_EQ(adjust(2, 0), 0);
  EXPECT_EQ(header.entryCount(), 2);
  EXPECT_EQ(table[2].bytes, GPTEntry{}.bytes);
}

TEST_F(BrovLayout, DeletingAMiddlePartitionMovesTheRestDownAndRepacks) {
  layOut({{3, 102}, {103, 202}, {203, 212}});
  ASSERT_EQ(adjust(1, 0), 0);
  EXPECT_EQ(header.entryCount(), 2);
  EXPECT_EQ(table[1].bytes[platform::gpt::kAttributes], 0xA2);
  EXPECT_EQ(extent(1), Extent(103, 112));
  EXPECT_EQ(table[2].bytes, GPTEntry{}.bytes);
}

TEST_F(BrovLayout, ALayoutEndingExactlyAtTheLastUsableBlockFitsAndOneMoreOverflowsBy1) {
  layOut({{3, 102}, {103, 202}});
  const std::uint64_t rest = kLastUsable + 1 - 103;
  ASSERT_EQ(adjust(1, rest * 4096), 0);
  EXPECT_EQ(extent(1).second, kLastUsable);

  layOut({{3, 102}, {103, 202}});
  EXPECT_EQ(adjust(1, (rest + 1) * 4096), -1);
  EXPECT_EQ(said, "brov: new layout does not fit, overflows by 0x1 blocks\n");
  EXPECT_EQ(header.entryCount(), 2);

  // A create that does not fit leaves the count as it was.
  layOut({{3, 1000}});
  EXPECT_EQ(adjust(1, 0x30 * 4096), -1);
  EXPECT_EQ(said, "brov: new layout does not fit, overflows by 0x1b blocks\n");
  EXPECT_EQ(header.entryCount(), 1);
}

TEST_F(BrovLayout, IndicesOutsideTheTableOrPastTheCountAreRefused) {
  layOut({{3, 102}, {103, 202}});
  EXPECT_EQ(adjust(3, 4096), -1);
  EXPECT_EQ(said, "brov: cannot adjust partition 3 - out of range\n");
  EXPECT_EQ(adjust(8, 4096), -1);
  EXPECT_EQ(said, "brov: cannot adjust partition 8 - out of range\n");
  EXPECT_EQ(adjust(-1, 4096), -1);
  EXPECT_EQ(said, "brov: cannot adjust partition -1 - out of range\n");

  // A full table cannot take a ninth partition.
  layOut({{3, 3}, {4, 4}, {5, 5}, {6, 6}, {7, 7}, {8, 8}, {9, 9}, {10, 10}});
  EXPECT_EQ(adjust(8, 4096), -1);
}

TEST_F(BrovLayout, AnEntryCountBeyondTheTableIsRefused) {
  layOut({{3, 102}});
  header.setEntryCount(9);
  EXPECT_EQ(adjust(0, 4096), -1);
  header.setEntryCount(-2);
  EXPECT_EQ(adjust(0, 4096), -1);
  EXPECT_EQ(said, "brov: cannot adjust partition 0 - out of range\n");
}

}  // namespace
