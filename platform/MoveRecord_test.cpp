#include "platform/MoveRecord.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

MoveRecord sample() {
  MoveRecord r;
  r.sequence = 7;
  r.blockSize = 4096;
  r.blockCount = 393216;
  r.diskGuid.fill(0xD1);
  r.moves = {{4, 300000, 310000, 16384}, {3, 280000, 290000, 16384}};
  r.current = 1;
  r.progress = 4096;
  r.header.fill(0x11);
  r.entries.fill(0x22);
  return r;
}

TEST(MoveRecord, RoundTripsEveryField) {
  const MoveRecord r = sample();
  Data slot = encodeMoveRecord(r);
  ASSERT_EQ(slot.size(), kMoveRecordSize);
  slot.resize(4096, 0);
  auto back = decodeMoveRecord(slot);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->sequence, 7u);
  EXPECT_EQ(back->blockSize, 4096u);
  EXPECT_EQ(back->blockCount, 393216u);
  EXPECT_EQ(back->diskGuid, r.diskGuid);
  EXPECT_EQ(back->moves, r.moves);
  EXPECT_EQ(back->current, 1u);
  EXPECT_EQ(back->progress, 4096u);
  EXPECT_EQ(back->header, r.header);
  EXPECT_EQ(back->entries, r.entries);
  const Data table = recordedTable(*back);
  EXPECT_EQ(table[91], 0x11);
  EXPECT_EQ(table[92], 0);
  EXPECT_EQ(table[4096 + 1023], 0x22);
}

TEST(MoveRecord, AnEmptyTornOrDamagedSlotHoldsNoRecord) {
  const Data good = encodeMoveRecord(sample());
  EXPECT_FALSE(decodeMoveRecord(Data(4096, 0)));
  EXPECT_FALSE(decodeMoveRecord({good.data(), good.size() - 1}));
  // A write torn after its first sector, and any changed byte.
  Data torn(4096, 0);
  std::copy_n(good.begin(), 512, torn.begin());
  EXPECT_FALSE(decodeMoveRecord(torn));
  for (std::size_t at : {0u, 8u, 16u, 60u, 72u, 400u, 1443u, 1447u}) {
    Data bad = good;
    bad[at] ^= 0x01;
    EXPECT_FALSE(decodeMoveRecord(bad)) << "byte " << at;
  }
  // Counts beyond the table, even with a matching checksum.
  MoveRecord r = sample();
  r.current = 3;
  EXPECT_FALSE(decodeMoveRecord(encodeMoveRecord(r)));
}

}  // namespace
}  // namespace platform
