#include "platform/MovePlan.h"

#include <gtest/gtest.h>

#include "platform/GptDisk.h"

namespace platform {
namespace {

constexpr std::uint32_t kBs = 4096;
constexpr std::uint64_t kBlocks = 1024;  // usable 5-1021

struct Part {
  std::uint8_t guid;  // the unique GUID, all 16 bytes this value
  std::uint64_t first, last;
};

Data table(const std::vector<Part>& parts) {
  Data t(2 * kBs, 0);
  gpt::store32(&t[gpt::kEntryCount], static_cast<std::uint32_t>(parts.size()));
  for (std::size_t i = 0; i < parts.size(); ++i) {
    std::uint8_t* e = &t[kBs + i * gpt::kEntrySize];
    std::copy(gpt::kMarlPartitionType.begin(), gpt::kMarlPartitionType.end(), e);
    std::fill_n(e + gpt::kUniqueGuid, 16, parts[i].guid);
    gpt::store64(e + gpt::kFirstLba, parts[i].first);
    gpt::store64(e + gpt::kLastLba, parts[i].last);
  }
  return t;
}

Result<std::vector<PartitionMove>> plan(const std::vector<Part>& before,
                                        const std::vector<Part>& after) {
  return planMoves(table(before), table(after), kBs, kBlocks);
}

using Moves = std::vector<PartitionMove>;

TEST(PlanMoves, OnlyAPartitionWhoseStartMovesIsCopiedWithTheBlocksItKeeps) {
  const std::vector<Part> disk = {{1, 5, 102}, {2, 103, 921}, {3, 922, 1021}};
  // Shrinking Data moves Update back: all of it is copied.
  auto shrink = plan(disk, {{1, 5, 102}, {2, 103, 602}, {3, 603, 702}});
  ASSERT_TRUE(shrink.ok()) << shrink.error().description;
  EXPECT_EQ(*shrink, (Moves{{3, 922, 603, 100}}));
  // Growing or shrinking in place, creating and deleting copy nothing.
  auto inPlace =
      plan({{1, 5, 102}, {2, 103, 502}, {3, 503, 602}}, {{1, 5, 50}, {3, 503, 900}, {4, 901, 950}});
  ASSERT_TRUE(inPlace.ok());
  EXPECT_TRUE(inPlace->empty());
  // Moved and resized: what it keeps, its old size when it grows.
  auto grown = plan(disk, {{1, 5, 102}, {2, 103, 800}, {3, 801, 1021}});
  ASSERT_TRUE(grown.ok());
  EXPECT_EQ(*grown, (Moves{{3, 922, 801, 100}}));
  auto shrunk = plan(disk, {{1, 5, 102}, {2, 103, 950}, {3, 951, 1000}});
  ASSERT_TRUE(shrunk.ok());
  EXPECT_EQ(*shrunk, (Moves{{3, 922, 951, 50}}));
  // Partitions are followed by GUID, not by table position.
  auto renumbered = plan(disk, {{2, 5, 823}, {3, 824, 923}});
  ASSERT_TRUE(renumbered.ok());
  EXPECT_EQ(*renumbered, (Moves{{1, 103, 5, 819}, {2, 922, 824, 100}}));
}

TEST(PlanMoves, NoCopyOverwritesBlocksAnotherStillHasToRead) {
  const std::vector<Part> before = {{1, 5, 102}, {2, 103, 402}, {3, 403, 502}, {4, 503, 602}};
  // Data grows by 50: Update and New move forward, the last one first.
  auto forward = plan(before, {{1, 5, 102}, {2, 103, 452}, {3, 453, 552}, {4, 553, 652}});
  ASSERT_TRUE(forward.ok());
  EXPECT_EQ(*forward, (Moves{{4, 503, 553, 100}, {3, 403, 453, 100}}));
  // Data shrinks by 50: they move back, the first one first.
  auto backward = plan(before, {{1, 5, 102}, {2, 103, 352}, {3, 353, 452}, {4, 453, 552}});
  ASSERT_TRUE(backward.ok());
  EXPECT_EQ(*backward, (Moves{{3, 403, 353, 100}, {4, 503, 453, 100}}));
}

TEST(PlanMoves, RefusesMovesThatWouldLoseData) {
  const std::vector<Part> disk = {{1, 5, 102}, {2, 103, 502}, {3, 503, 602}};
  auto expectRefused = [](const Result<Moves>& r, int code) {
    ASSERT_FALSE(r.ok());
    EXPECT_EQ(r.error().code, code) << r.error().description;
  };
  // Over a partition that stays, or over another's new place.
  expectRefused(plan(disk, {{1, 5, 102}, {2, 103, 502}, {3, 400, 499}}), EINVAL);
  expectRefused(plan(disk, {{1, 5, 102}, {2, 700, 800}, {3, 750, 849}}), EINVAL);
  // Two partitions trading places: each would overwrite the other.
  expectRefused(plan(disk, {{1, 5, 102}, {2, 203, 602}, {3, 103, 202}}), EINVAL);
  // Into the backup table, or the move record's blocks.
  expectRefused(plan(disk, {{1, 5, 102}, {2, 103, 502}, {3, 1000, 1099}}), EINVAL);
  expectRefused(plan(disk, {{1, 5, 102}, {2, 103, 502}, {3, 3, 4}}), EINVAL);
  // Which of two partitions sharing a GUID moved cannot be told.
  expectRefused(plan({{1, 5, 102}, {1, 103, 502}}, {{1, 5, 102}, {1, 203, 602}}), EINVAL);
  // A disk laid out with a partition over blocks 3 and 4 has no room for
  // the move record: whatever would move stays.
  expectRefused(plan({{1, 3, 102}, {2, 103, 502}, {3, 503, 602}},
                     {{1, 3, 102}, {2, 103, 402}, {3, 403, 502}}),
                ENOSPC);
  // Without a move it needs no record room.
  EXPECT_TRUE(plan({{1, 3, 102}, {2, 103, 502}}, {{1, 3, 102}, {2, 103, 902}}).ok());
}

TEST(UndoMoves, UndoesTheCopiedPartNewestFirstOnlyWhenASourceWasOverwritten) {
  // Update forward by 40 over its own tail; the copy runs back to front.
  const Moves overlapping = {{4, 600, 640, 100}, {3, 500, 540, 100}};
  EXPECT_TRUE(undoMoves(overlapping, 0, 0).empty());
  EXPECT_EQ(undoMoves(overlapping, 1, 30), (Moves{{3, 610, 570, 30}, {4, 640, 600, 100}}));
  EXPECT_EQ(undoMoves(overlapping, 0, 60), (Moves{{4, 680, 640, 60}}));
  // Backward copies run front to back: their done part is the head.
  EXPECT_EQ(undoMoves({{3, 500, 460, 100}}, 0, 30), (Moves{{3, 460, 500, 30}}));
  // Copied into free space: the old places are whole, nothing to undo.
  EXPECT_TRUE(undoMoves({{3, 500, 700, 100}}, 0, 60).empty());
  EXPECT_TRUE(undoMoves({{3, 500, 700, 100}}, 1, 0).empty());
}

}  // namespace
}  // namespace platform
