#include "storage/BrovGeometry.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/testing/CapturedStderr.h"

namespace {

using platform::testing::capturedStderr;

struct Described {
  int result;
  BrovMediaGeometry geometry;
  std::string stderrText;
};

Described describe(std::uint64_t mediaSize, std::uint32_t blockSize) {
  Described d{};
  d.stderrText =
      capturedStderr([&] { d.result = brovInitMediaGeometry(&d.geometry, mediaSize, blockSize); });
  return d;
}

TEST(BrovGeometry, LargestMediaIsAcceptedWithZeroChunkSizeAndOnlyAWarning) {
  Described d = describe(1ull << 42, 4096);
  EXPECT_EQ(d.result, 0);
  EXPECT_EQ(d.stderrText, "brov: media too small\n");
  EXPECT_EQ(d.geometry.chunkShift, 32u);
  EXPECT_EQ(d.geometry.chunkSize, 0u);
  EXPECT_EQ(d.geometry.chunkCount, 1024u);
  EXPECT_EQ(d.geometry.usableSize, 0u);

  Described over = describe((1ull << 42) + 1, 4096);
  EXPECT_EQ(over.result, -1);
  EXPECT_EQ(over.stderrText, "brov: media too large\n");
  EXPECT_EQ(over.geometry.mediaSize, (1ull << 42) + 1);  // stored before the check
}

TEST(BrovGeometry, ChunkShiftIsTheSmallestThatCoversTheMediaIn1024Chunks) {
  Described gib16 = describe(1ull << 34, 4096);
  EXPECT_EQ(gib16.result, 0);
  EXPECT_EQ(gib16.stderrText, "");
  EXPECT_EQ(gib16.geometry.chunkShift, 24u);
  EXPECT_EQ(gib16.geometry.chunkSize, 16u << 20);
  EXPECT_EQ(gib16.geometry.chunkCount, 1024u);
  // Wider than 32 bits: the product is taken in 64 bits.
  EXPECT_EQ(gib16.geometry.usableSize, 1016ull * (16u << 20));

  Described oneMore = describe((1ull << 34) + 1, 4096);
  EXPECT_EQ(oneMore.geometry.chunkShift, 25u);
  EXPECT_EQ(oneMore.geometry.chunkSize, 32u << 20);
  EXPECT_EQ(oneMore.geometry.chunkCount, 512u);

  Described gib3 = describe(3ull << 30, 4096);
  EXPECT_EQ(gib3.geometry.chunkShift, 22u);
  EXPECT_EQ(gib3.geometry.chunkSize, 4u << 20);
  EXPECT_EQ(gib3.geometry.chunkCount, 768u);
  EXPECT_EQ(gib3.geometry.usableSize, 760ull * (4u << 20));
}

TEST(BrovGeometry, BlockSizesFrom4096To16384AreAccepted) {
  Described smallest = describe(1ull << 30, 4096);
  EXPECT_EQ(smallest.result, 0);
  EXPECT_EQ(smallest.geometry.blockShift, 12u);
  Described largest = describe(1ull << 30, 16384);
  EXPECT_EQ(largest.result, 0);
  EXPECT_EQ(largest.geometry.blockShift, 14u);

  Described tooSmall = describe(1ull << 30, 2048);
  EXPECT_EQ(tooSmall.result, -1);
  EXPECT_EQ(tooSmall.stderrText, "brov: media block size too small\n");
  Described tooLarge = describe(1ull << 30, 32768);
  EXPECT_EQ(tooLarge.result, -1);
  EXPECT_EQ(tooLarge.stderrText, "brov: media block size too large\n");
  // The size check comes first.
  EXPECT_EQ(describe((1ull << 42) + 1, 2048).stderrText, "brov: media too large\n");
}

TEST(BrovGeometry, TinyMediaWarnsAndWrapsTheReservedChunksIn32Bits) {
  Described mib = describe(1ull << 20, 4096);
  EXPECT_EQ(mib.result, 0);
  EXPECT_EQ(mib.stderrText, "brov: media too small\n");
  EXPECT_EQ(mib.geometry.chunkSize, 1024u);

  // Five one-byte chunks: 5 - 8 wraps to 0xFFFFFFFD usable chunks.
  Described five = describe(5, 4096);
  EXPECT_EQ(five.result, 0);
  EXPECT_EQ(five.geometry.chunkShift, 0u);
  EXPECT_EQ(five.geometry.chunkCount, 5u);
  EXPECT_EQ(five.geometry.usableSize, 0xFFFFFFFDull);
}

TEST(BrovGeometry, MissingRecordIsRefused) {
  EXPECT_EQ(capturedStderr([] { EXPECT_EQ(brovInitMediaGeometry(nullptr, 1ull << 30, 4096), -1); }),
            "brov: NULL media properties\n");
}

}  // namespace
