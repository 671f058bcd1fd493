#include "platform/linux/KernelPartitions.h"

#include <gtest/gtest.h>

#include "platform/GptDisk.h"

namespace platform {
namespace {

using Parts = std::vector<KernelPartition>;
constexpr std::uint64_t M = 1 << 20;

TEST(ReconcilePlan, AMatchingMappingNeedsNothing) {
  Parts same = {{1, 1 * M, 10 * M}, {2, 11 * M, 5 * M}};
  EXPECT_TRUE(planReconcile(same, same).empty());
}

TEST(ReconcilePlan, GrowingDataAndMovingUpdateRemovesUpdateBeforeGrowingData) {
  Parts now = {{1, 1 * M, 10 * M}, {2, 11 * M, 5 * M}, {3, 16 * M, 2 * M}};
  Parts want = {{1, 1 * M, 10 * M}, {2, 11 * M, 8 * M}, {3, 19 * M, 2 * M}};
  ReconcilePlan plan = planReconcile(now, want);
  EXPECT_EQ(plan.remove, (Parts{{3, 16 * M, 2 * M}}));
  EXPECT_TRUE(plan.shrink.empty());
  EXPECT_EQ(plan.grow, (Parts{{2, 11 * M, 8 * M}}));
  EXPECT_EQ(plan.add, (Parts{{3, 19 * M, 2 * M}}));
}

TEST(ReconcilePlan, ShrinksComeBeforeTheWriteAndGrowthsAfterSoNeighboursNeverOverlap) {
  Parts now = {{1, 0, 10 * M}, {2, 10 * M, 10 * M}};
  Parts want = {{1, 0, 12 * M}, {2, 10 * M, 5 * M}};
  ReconcilePlan plan = planReconcile(now, want);
  EXPECT_EQ(plan.shrink, (Parts{{2, 10 * M, 5 * M}}));
  EXPECT_EQ(plan.grow, (Parts{{1, 0, 12 * M}}));
}

TEST(ReconcilePlan, NoMappingCoversBlocksAMoveCopiesWhileItRuns) {
  // Data (2) shrinks to 6M, Update (3) is copied from 16M to 7M.
  Parts now = {{1, 0, M}, {2, M, 15 * M}, {3, 16 * M, 2 * M}};
  Parts want = {{1, 0, M}, {2, M, 6 * M}, {3, 7 * M, 2 * M}};
  const std::vector<ByteRange> copied = {{16 * M, 18 * M}, {7 * M, 9 * M}};
  ReconcilePlan plan = planReconcile(now, want, copied);
  // Data, once shrunk, keeps clear of the copy and stays mapped (it is mounted).
  EXPECT_EQ(plan.remove, (Parts{{3, 16 * M, 2 * M}}));
  EXPECT_EQ(plan.shrink, (Parts{{2, M, 6 * M}}));
  EXPECT_EQ(plan.add, (Parts{{3, 7 * M, 2 * M}}));

  // A mapping that stays put but would still cover the copy goes and comes back.
  plan = planReconcile(now, now, {{17 * M, 18 * M}});
  EXPECT_EQ(plan.remove, (Parts{{3, 16 * M, 2 * M}}));
  EXPECT_EQ(plan.add, (Parts{{3, 16 * M, 2 * M}}));
  EXPECT_TRUE(plan.shrink.empty() && plan.grow.empty());
}

TEST(ReconcilePlan, CreatedAndDeletedEntriesAreAddedAndRemoved) {
  Parts now = {{1, 0, M}, {4, 9 * M, M}};
  Parts want = {{1, 0, M}, {2, M, M}};
  ReconcilePlan plan = planReconcile(now, want);
  EXPECT_EQ(plan.remove, (Parts{{4, 9 * M, M}}));
  EXPECT_EQ(plan.add, (Parts{{2, M, M}}));
  EXPECT_TRUE(plan.shrink.empty() && plan.grow.empty());
}

TEST(ReconcilePlan, TheTableGivesOnePartitionPerEntryInUse) {
  Data blocks(2 * 4096, 0);
  gpt::store32(&blocks[gpt::kEntryCount], 2);
  for (int i = 0; i < 3; ++i) blocks[4096 + i * 128] = 0x4D;  // a partition type
  gpt::store64(&blocks[4096 + gpt::kFirstLba], 3);
  gpt::store64(&blocks[4096 + gpt::kLastLba], 12);
  gpt::store64(&blocks[4096 + 128 + gpt::kFirstLba], 13);
  gpt::store64(&blocks[4096 + 128 + gpt::kLastLba], 13);
  gpt::store64(&blocks[4096 + 256 + gpt::kLastLba], 99);  // behind the count
  EXPECT_EQ(partitionsOfTable(blocks, 4096),
            (Parts{{1, 3 * 4096, 10 * 4096}, {2, 13 * 4096, 4096}}));
  // Bounded by the table; slots without a type are unused.
  gpt::store32(&blocks[gpt::kEntryCount], 1000);
  EXPECT_EQ(partitionsOfTable(blocks, 4096).size(), 3u);
  blocks[4096 + 256] = 0;
  EXPECT_EQ(partitionsOfTable(blocks, 4096).size(), 2u);
}

}  // namespace
}  // namespace platform
