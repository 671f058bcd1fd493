#include "platform/TableCommit.h"

#include <gtest/gtest.h>

#include "platform/testing/FaultInjectingBlockIo.h"
#include "platform/testing/MemoryBlockIo.h"

namespace platform {
namespace {

using testing::FaultInjectingBlockIo;
using testing::MemoryBlockIo;

constexpr std::uint32_t kBs = 4096;
constexpr std::uint64_t kBlocks = 1024;
// Small chunks and steps, so that a 100-block move takes many of each.
constexpr CopyLimits kLimits{8 * kBs, 32 * kBs};
constexpr int kSystem = 0, kData = 1, kUpdate = 2;

// A disk in memory: System 5-102, Data 103-921, Update 922-1021, every
// block of each stamped with its partition and its place in it.
class Commit : public ::testing::Test {
 protected:
  void SetUp() override {
    gpt::DiskLayout layout;
    layout.blockCount = kBlocks;
    layout.partitions = {{"System", 98}, {"Data", 0}, {"Update", 100}};
    auto image = gpt::buildDisk(layout);
    ASSERT_TRUE(image.ok());
    disk.assign(kBlocks * kBs, 0);
    for (const auto& w : image->writes)
      std::copy(w.bytes.begin(), w.bytes.end(), disk.begin() + w.offset);
    for (int i : {kSystem, kData, kUpdate}) stamp(first(i), last(i) - first(i) + 1, 'A' + i);
    pristine = disk;
  }

  void stamp(std::uint64_t lba, std::uint64_t blocks, std::uint64_t tag) {
    for (std::uint64_t b = 0; b < blocks; ++b)
      for (std::uint64_t w = 0; w < kBs / 8; ++w)
        gpt::store64(&disk[(lba + b) * kBs + 8 * w], tag << 48 | b << 12 | w);
  }
  // Whether blocks at lba hold the stamps of a partition's blocks from
  // block `from` of it on.
  bool holdsFrom(std::uint64_t lba, std::uint64_t from, std::uint64_t blocks,
                 std::uint64_t tag) const {
    for (std::uint64_t b = 0; b < blocks; ++b)
      for (std::uint64_t w = 0; w < kBs / 8; ++w)
        if (gpt::load64(&disk[(lba + b) * kBs + 8 * w]) != (tag << 48 | (from + b) << 12 | w))
          return false;
    return true;
  }
  bool holds(std::uint64_t lba, std::uint64_t blocks, std::uint64_t tag) const {
    return holdsFrom(lba, 0, blocks, tag);
  }

  std::uint64_t first(int i) const {
    return gpt::load64(&disk[2 * kBs + i * 128 + gpt::kFirstLba]);
  }
  std::uint64_t last(int i) const { return gpt::load64(&disk[2 * kBs + i * 128 + gpt::kLastLba]); }
  Data table() const { return Data(disk.begin() + kBs, disk.begin() + 3 * kBs); }
  // The table on disk with Data ending at dataLast and Update right behind it.
  Data resized(std::uint64_t dataLast) const {
    Data t = table();
    gpt::store64(&t[kBs + kData * 128 + gpt::kLastLba], dataLast);
    gpt::store64(&t[kBs + kUpdate * 128 + gpt::kFirstLba], dataLast + 1);
    gpt::store64(&t[kBs + kUpdate * 128 + gpt::kLastLba], dataLast + 100);
    return t;
  }

  Status write(const Data& t, BlockIo& via) {
    return TableCommit(via, nullptr, kBs, kBlocks, kLimits).write(t, kBs);
  }
  Status map() { return TableCommit(io, nullptr, kBs, kBlocks, kLimits).map(); }

  // A torn record may leave bytes behind; it is no record.
  bool recordSlotsEmpty() const {
    return !decodeMoveRecord({disk.data() + 3 * kBs, kBs}) &&
           !decodeMoveRecord({disk.data() + 4 * kBs, kBs});
  }
  // Update holds its blocks where its entry says, System and Data what
  // they keep (the end of Data, where Update comes and goes, block by
  // block), the table is sealed with its backup and no record is left.
  void expectWhole(std::uint64_t dataKeeps) {
    EXPECT_TRUE(holds(first(kUpdate), 100, 'A' + kUpdate)) << "Update at " << first(kUpdate);
    EXPECT_TRUE(holds(first(kSystem), 98, 'A' + kSystem));
    const std::uint64_t tail = std::min<std::uint64_t>(dataKeeps, 64);
    EXPECT_TRUE(holds(first(kData), 1, 'A' + kData));
    EXPECT_TRUE(holdsFrom(first(kData) + dataKeeps - tail, dataKeeps - tail, tail, 'A' + kData));
    auto sealed = gpt::sealTable(table(), kBs, kBlocks);
    ASSERT_TRUE(sealed.ok());
    EXPECT_TRUE(std::equal(sealed->primary.begin(), sealed->primary.end(), disk.begin() + kBs));
    for (const auto& w : sealed->backup)
      EXPECT_TRUE(std::equal(w.bytes.begin(), w.bytes.end(), disk.begin() + w.offset));
    EXPECT_TRUE(recordSlotsEmpty());
  }

  Data disk, pristine;
  MemoryBlockIo io{disk};
};

TEST_F(Commit, ShrinkAndExpandCarryUpdatesBlocksAndNeverTouchWhatOthersKeep) {
  FaultInjectingBlockIo log(io);
  ASSERT_TRUE(write(resized(602), log));
  EXPECT_EQ(first(kUpdate), 603u);
  expectWhole(500);
  EXPECT_TRUE(holds(103, 500, 'A' + kData));
  for (const auto& call : log.calls) {
    // Only the table, the record and Update's new place are written.
    if (call.kind == 'w') {
      EXPECT_TRUE(call.offset + call.length <= 5 * kBs || call.offset >= 603 * kBs) << call.offset;
    }
  }

  ASSERT_TRUE(write(resized(921), io));
  EXPECT_EQ(first(kUpdate), 922u);
  expectWhole(500);  // what Data gave up is free space, Update's old place
}

TEST_F(Commit, AMoveOverlappingItselfKeepsEveryBlockInEitherDirection) {
  for (std::uint64_t distance : {1u, 3u, 8u, 33u, 99u}) {
    disk = pristine;
    ASSERT_TRUE(write(resized(921 - distance), io)) << distance;
    EXPECT_EQ(first(kUpdate), 922 - distance);
    expectWhole(819 - distance);
    ASSERT_TRUE(write(resized(921), io)) << distance;
    expectWhole(819 - distance);
  }
}

TEST_F(Commit, ATableThatMovesNothingCopiesNothingAndKeepsNoRecord) {
  FaultInjectingBlockIo log(io);
  Data t = table();
  gpt::store64(&t[kBs + kUpdate * 128 + gpt::kLastLba], 1000);  // Update shrinks in place
  gpt::store64(&t[kBs + kData * 128 + gpt::kLastLba], 900);
  ASSERT_TRUE(write(t, log));
  std::vector<std::uint64_t> written;
  for (const auto& call : log.calls)
    if (call.kind == 'w') written.push_back(call.offset);
  // The primary table, the backup entries and the backup header.
  EXPECT_EQ(written, (std::vector<std::uint64_t>{kBs, 1022 * kBs, 1023 * kBs}));
  EXPECT_TRUE(holds(922, 79, 'A' + kUpdate));
  EXPECT_EQ(last(kData), 900u);
}

struct Scenario {
  std::uint64_t dataBefore, dataAfter;
};

TEST_F(Commit, ACutAtAnyWriteIsFinishedWhenTheDiskIsMappedAgain) {
  // Back and forth over Update's own blocks, and back into free space.
  for (Scenario s : {Scenario{921, 891}, Scenario{891, 921}, Scenario{921, 602}}) {
    disk = pristine;
    if (s.dataBefore != 921) {
      ASSERT_TRUE(write(resized(s.dataBefore), io));
    }
    const Data start = disk;
    FaultInjectingBlockIo count(io);
    ASSERT_TRUE(write(resized(s.dataAfter), count));
    const std::size_t writes = count.writes();
    for (std::size_t cut = 1; cut <= writes; ++cut) {
      for (std::size_t torn : {0, 1000}) {
        SCOPED_TRACE("data " + std::to_string(s.dataBefore) + " to " + std::to_string(s.dataAfter) +
                     ", cut at write " + std::to_string(cut) + ", torn " + std::to_string(torn));
        disk = start;
        FaultInjectingBlockIo dying(io);
        dying.cutAtWrite = cut;
        dying.tornBytes = torn;
        // A cut while the record is cleared comes after the table is final.
        EXPECT_EQ(write(resized(s.dataAfter), dying).ok(), cut > writes - 2);
        ASSERT_TRUE(map());
        // Before the first record is whole the old table stands; after, the new.
        const bool recorded = cut > 1;
        EXPECT_EQ(last(kData), recorded ? s.dataAfter : s.dataBefore);
        expectWhole(std::min(s.dataBefore, s.dataAfter) - 102);
      }
    }
  }
}

TEST_F(Commit, AFailedCopyLeavesTheOldTableAndContentsInForce) {
  for (Scenario s : {Scenario{921, 891}, Scenario{891, 921}}) {
    disk = pristine;
    if (s.dataBefore != 921) {
      ASSERT_TRUE(write(resized(s.dataBefore), io));
    }
    const Data start = disk;
    FaultInjectingBlockIo count(io);
    ASSERT_TRUE(write(resized(s.dataAfter), count));
    int rolledBack = 0;
    for (std::size_t call = 1; call <= count.calls.size(); ++call) {
      SCOPED_TRACE("call " + std::to_string(call));
      disk = start;
      FaultInjectingBlockIo failing(io);
      failing.failCall = call;
      const Status written = write(resized(s.dataAfter), failing);
      if (!written) {
        EXPECT_EQ(written.error().code, 5);
      }
      if (!written && recordSlotsEmpty()) {
        // Undone: the old table, byte for byte, over Update's old blocks.
        EXPECT_TRUE(std::equal(start.begin() + kBs, start.begin() + 3 * kBs, disk.begin() + kBs));
        EXPECT_EQ(first(kUpdate), s.dataBefore + 1);
        ++rolledBack;
      }
      // Anything else (the table write itself failed) is finished by mapping.
      ASSERT_TRUE(map());
      expectWhole(std::min(s.dataBefore, s.dataAfter) - 102);
    }
    EXPECT_GT(rolledBack, 10);
  }
}

TEST_F(Commit, WhenUndoingFailsTooTheNextMappingFinishesIt) {
  FaultInjectingBlockIo count(io);
  ASSERT_TRUE(write(resized(891), count));
  for (std::size_t from : {count.calls.size() / 3, count.calls.size() / 2}) {
    disk = pristine;
    FaultInjectingBlockIo failing(io);
    failing.failReads = from;  // the disk stops reading for good
    EXPECT_FALSE(write(resized(891), failing));
    EXPECT_FALSE(recordSlotsEmpty());
    ASSERT_TRUE(map());
    expectWhole(789);
  }
}

TEST_F(Commit, AMoveCutShortIsFinishedBeforeTheNextWrite) {
  FaultInjectingBlockIo dying(io);
  dying.cutAtWrite = 6;
  EXPECT_FALSE(write(resized(891), dying));
  ASSERT_TRUE(write(resized(800), io));
  EXPECT_EQ(last(kData), 800u);
  expectWhole(698);
}

TEST_F(Commit, ARecordOfAnotherDiskOrInsideAPartitionIsNotActedOn) {
  MoveRecord r;
  r.sequence = 1;
  r.blockSize = kBs;
  r.blockCount = kBlocks;
  r.moves = {{3, 922, 603, 100}};
  const Data target = resized(602);
  std::copy_n(target.begin(), gpt::kHeaderSize, r.header.begin());
  std::copy_n(target.begin() + kBs, gpt::kEntryTableSize, r.entries.begin());
  auto place = [&](const MoveRecord& record, std::uint64_t lba) {
    const Data bytes = encodeMoveRecord(record);
    std::copy(bytes.begin(), bytes.end(), disk.begin() + lba * kBs);
  };

  // Another disk's: different disk GUIDs.
  r.header[gpt::kDiskGuid] ^= 0xFF;
  place(r, 3);
  ASSERT_TRUE(map());
  EXPECT_EQ(first(kUpdate), 922u);
  EXPECT_FALSE(recordSlotsEmpty());

  // This disk's, but for another size of disk: refused, nothing done.
  std::copy_n(disk.begin() + kBs + gpt::kDiskGuid, 16, r.diskGuid.begin());
  r.blockCount = 2048;
  place(r, 3);
  const Status misfit = map();
  ASSERT_FALSE(misfit);
  EXPECT_EQ(misfit.error().code, EINVAL);
  EXPECT_TRUE(holds(922, 100, 'A' + kUpdate));

  // Blocks 3 and 4 inside System: its data, whatever it looks like.
  Data t = table();
  gpt::store64(&t[kBs + kSystem * 128 + gpt::kFirstLba], 3);
  std::copy(t.begin(), t.end(), disk.begin() + kBs);
  r.blockCount = kBlocks;
  place(r, 3);
  const Data before = disk;
  ASSERT_TRUE(map());
  EXPECT_EQ(disk, before);
}

}  // namespace
}  // namespace platform
