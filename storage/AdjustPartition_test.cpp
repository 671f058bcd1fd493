#include "storage/AdjustPartition.h"

#include <gtest/gtest.h>

#include "platform/testing/FaultInjectingBlockIo.h"
#include "storage/StorageTestSupport.h"

namespace storage::testing {
namespace {

// The default disk: System 5-102, Data 103-921 (819 blocks), Update 922-1021.
class AdjustPartition : public DiskTest {
 protected:
  int adjust(std::uint64_t bytes) {
    int r = -1;
    said = capturedStderr([&] { r = adjust_partition(services, bytes); });
    return r;
  }
  // Each expected line appears, in this order.
  void expectInOrder(const std::vector<std::string>& lines) {
    std::size_t at = 0;
    for (const auto& line : lines) {
      std::size_t found = said.find(line, at);
      ASSERT_NE(found, std::string::npos) << "missing or out of order: " << line << "\nin:\n"
                                          << said;
      at = found + line.size();
    }
  }
  std::string said;
};

using Events = std::vector<std::string>;

TEST_F(AdjustPartition, ShrinkResizesTheFileSystemFirstThenWritesTheRepackedTable) {
  mount(1, "disk0s2", "/private/var");
  ASSERT_EQ(adjust(500 * kBlock), 0);
  EXPECT_EQ(volumes.events, (Events{"open 0", "resize /private/var 2048000", "open 18",
                                    "write 4096 8192", "sync"}));
  expectInOrder({"entering adjust_partition", "partition: requiredSize=500",
                 "scanning 1 filesystems for " + uuidOf(1), "UUID " + uuidOf(1) + " match",
                 "matched /dev/disk0s2 on /private/var",
                 "shrinking Marl filesystem on /private/var from 3354624 to 2048000",
                 "Resizing existing partition with GPT index 1",
                 "About to adjust with settings partitionIndex:1 size:1 MB",
                 "Wrote GPT header back to disk"});
  EXPECT_EQ(entry(1).firstLBA(), 103u);
  EXPECT_EQ(entry(1).lastLBA(), 602u);
  EXPECT_EQ(entry(2).firstLBA(), 603u);  // Update follows the shrunk Data
  EXPECT_EQ(entry(2).lastLBA(), 702u);
}

TEST_F(AdjustPartition, GrowWritesAndSyncsTheTableBeforeGrowingTheFileSystem) {
  makeDisk({{"System", 98}, {"Data", 300}, {"Update", 100}});
  mount(1, "disk0s2", "/private/var");
  ASSERT_EQ(adjust(819 * kBlock), 0);
  EXPECT_EQ(volumes.events, (Events{"open 0", "open 18", "write 4096 8192", "sync",
                                    "resize /private/var 3354624"}));
  expectInOrder(
      {"Wrote GPT header back to disk", "expanding Marl filesystem on /private/var to 3354624"});
  EXPECT_EQ(entry(1).lastLBA(), 921u);
  EXPECT_EQ(entry(2).firstLBA(), 922u);  // Update moves forward by the growth
  EXPECT_EQ(entry(2).lastLBA(), kLastUsable);
}

TEST_F(AdjustPartition, WritesBlocks1And2OnlyWithZerosBeyondTheRecordsAndTheCRCsAsRead) {
  // Bytes past the 92-byte header and the 1024-byte entry table are not kept.
  volumes.disk[kBlock + 200] = 0x5A;
  volumes.disk[2 * kBlock + 2000] = 0x5A;
  const GPTHeader before = header();
  const std::uint32_t headerCrc = platform::gpt::load32(&before.bytes[platform::gpt::kHeaderCrc]);
  const std::uint32_t entriesCrc =
      platform::gpt::load32(&before.bytes[platform::gpt::kEntryArrayCrc]);
  const platform::Data mbr(volumes.disk.begin(), volumes.disk.begin() + kBlock);
  mount(1, "disk0s2", "/private/var");

  ASSERT_EQ(adjust(500 * kBlock), 0);
  ASSERT_EQ(volumes.writes.size(), 1u);
  const auto& [offset, bytes] = volumes.writes[0];
  EXPECT_EQ(offset, kBlock);
  ASSERT_EQ(bytes.size(), 2 * kBlock);
  EXPECT_TRUE(
      std::all_of(bytes.begin() + 92, bytes.begin() + kBlock, [](auto b) { return b == 0; }));
  EXPECT_TRUE(
      std::all_of(bytes.begin() + kBlock + 1024, bytes.end(), [](auto b) { return b == 0; }));
  EXPECT_TRUE(std::equal(before.bytes.begin(), before.bytes.end(), bytes.begin()));
  // Stale on purpose: the volume layer below seals the table.
  EXPECT_EQ(platform::gpt::load32(&bytes[platform::gpt::kHeaderCrc]), headerCrc);
  EXPECT_EQ(platform::gpt::load32(&bytes[platform::gpt::kEntryArrayCrc]), entriesCrc);
  EXPECT_NE(platform::gpt::crc32({bytes.data() + kBlock, 3 * 128}), entriesCrc);
  EXPECT_TRUE(std::equal(mbr.begin(), mbr.end(), volumes.disk.begin()));
  // The disk below sealed what the driver wrote, backup included.
  EXPECT_EQ(platform::gpt::load64(
                &volumes.disk[(kBlocks - 2) * kBlock + 2 * 128 + platform::gpt::kFirstLba]),
            603u);
}

TEST_F(AdjustPartition, TheCurrentSizeIsNoChangeAndWritesNothing) {
  EXPECT_EQ(adjust(819 * kBlock), 0);
  expectInOrder({"partition: requiredSize=819", "no change in size"});
  EXPECT_EQ(volumes.events, Events{"open 0"});
}

TEST_F(AdjustPartition, ZeroBlocksIsRefusedAndAlwaysNamesPartition1) {
  makeDisk({{"System", 98}, {"Update", 100}, {"Data", 0}});
  EXPECT_EQ(adjust(0), 1);
  expectInOrder({"deletion of partition 1 disallowed"});
  EXPECT_EQ(volumes.events, Events{"open 0"});
}

TEST_F(AdjustPartition, ARequestBeyondTheUsableBlocksFailsSilently) {
  makeDisk({{"System", 98}, {"Data", 300}, {"Update", 100}});
  mount(1, "disk0s2", "/private/var");
  EXPECT_EQ(adjust(820 * kBlock), 1);
  EXPECT_EQ(said, "entering adjust_partition\npartition: requiredSize=820\n");
  EXPECT_EQ(volumes.events, Events{"open 0"});
  EXPECT_EQ(adjust(819 * kBlock), 0);  // exactly what the others leave
}

TEST_F(AdjustPartition, AnUnmountedDataPartitionCannotBeResized) {
  EXPECT_EQ(adjust(500 * kBlock), 1);
  expectInOrder({"scanning 0 filesystems for " + uuidOf(1),
                 "filesystem must be mounted (mountPoint=(null),which=1,nPartitions=3,newSize=500)",
                 "failed to adjust partition 1"});
  EXPECT_EQ(volumes.events, Events{"open 0"});
}

TEST_F(AdjustPartition, TheMountScanSkipsOtherTypesAndExplainsEachUnusableDevice) {
  volumes.mounts = {{"ext4", "/", "/dev/vda"},
                    {"marl", "/a", "/dev/gone"},
                    {"marl", "/b", "/dev/bare"},
                    {"marl", "/c", "other"},
                    {"marl", "/d", "/dev/long"}};
  volumes.partitionUUIDs["/dev/bare"] = std::nullopt;
  volumes.partitionUUIDs["/dev/other"] = "00000000-0000-4000-8000-000000000000";
  volumes.partitionUUIDs["/dev/long"] = uuidOf(1) + "0";
  mount(1, "disk0s2", "/private/var");
  ASSERT_EQ(adjust(500 * kBlock), 0);
  expectInOrder({"scanning 6 filesystems for " + uuidOf(1),
                 "failed to find an Orbel owning gone (unexpected)",
                 "device matching bare has no UUID (unexpected)",
                 "UUID 00000000-0000-4000-8000-000000000000 does not match",
                 "failed to get string from UUID property (unexpected)",
                 "UUID " + uuidOf(1) + " match", "matched /dev/disk0s2 on /private/var"});
  EXPECT_EQ(said.find("vda"), std::string::npos);
}

TEST_F(AdjustPartition, OnlyTheFirstEightMountsAreScanned) {
  for (int i = 0; i < 8; ++i) volumes.mounts.push_back({"apfs", "/m", "/dev/x"});
  mount(1, "disk0s2", "/private/var");
  EXPECT_EQ(adjust(500 * kBlock), 1);
  expectInOrder({"scanning 8 filesystems for", "filesystem must be mounted"});
}

TEST_F(AdjustPartition, AFailedMountScanScansNothing) {
  mount(1, "disk0s2", "/private/var");
  volumes.mountScanFails = true;
  EXPECT_EQ(adjust(500 * kBlock), 1);
  expectInOrder({"failed to get filesystem information", "scanning -1 filesystems for " + uuidOf(1),
                 "filesystem must be mounted"});
}

TEST_F(AdjustPartition, AFailedShrinkOfTheFileSystemLeavesTheTableAlone) {
  mount(1, "disk0s2", "/private/var");
  volumes.resizeErrno = 28;
  EXPECT_EQ(adjust(500 * kBlock), 1);
  expectInOrder({"Marl resize failed. errno=28",
                 "can't shrink partition 1, currently mounted on /private/var",
                 "failed to adjust partition 1"});
  EXPECT_EQ(volumes.events, (Events{"open 0", "resize /private/var 2048000"}));
}

TEST_F(AdjustPartition, AFailedGrowthLeavesTheTableWrittenAndFails) {
  makeDisk({{"System", 98}, {"Data", 300}, {"Update", 100}});
  mount(1, "disk0s2", "/private/var");
  volumes.resizeErrno = 22;
  EXPECT_EQ(adjust(600 * kBlock), 1);
  expectInOrder({"Wrote GPT header back to disk", "Marl resize failed. errno=22",
                 "can't expanding Marl filesystem on /private/var"});
  EXPECT_EQ(entry(1).blockCount(), 600u);
}

TEST_F(AdjustPartition, WriteFailuresAreReportedWithTheReturnAndErrno) {
  mount(1, "disk0s2", "/private/var");
  volumes.writeErrno = 16;
  EXPECT_EQ(adjust(500 * kBlock), 1);
  expectInOrder(
      {"failed to write GPT header and table to /dev/rdisk0s1 (return -1). "
       "errno=16 : Device or resource busy"});
  EXPECT_EQ(volumes.events.back(), "write 4096 8192");  // no sync, no growth

  volumes.writeErrno = 0;
  volumes.shortWrite = 4096;
  EXPECT_EQ(adjust(400 * kBlock), 1);
  expectInOrder({"failed to write GPT header and table to /dev/rdisk0s1 (return 4096)."});

  volumes.shortWrite.reset();
  volumes.writeOpenFails = true;
  EXPECT_EQ(adjust(300 * kBlock), 1);
  expectInOrder({"Failed to open /dev/rdisk0s1 to write new GPT header out to disk.\n"});
}

TEST_F(AdjustPartition, AFailedMoveOfUpdateIsAFailedWriteThatLeavesTableAndBytesAsTheyWere) {
  makeDisk({{"System", 98}, {"Data", 300}, {"Update", 100}});  // Update at 403-502
  for (std::uint64_t b = 403; b <= 502; ++b)
    std::fill_n(volumes.disk.begin() + b * kBlock, kBlock, static_cast<std::uint8_t>(b));
  const platform::Data before = volumes.disk;
  mount(1, "disk0s2", "/private/var");
  platform::testing::FaultInjectingBlockIo failing(volumes.diskIo);
  failing.failReads = 8;  // a few reads into the copy, and the disk stays bad
  volumes.blockIo = &failing;
  volumes.copyLimits = {8 * kBlock, 32 * kBlock};

  EXPECT_EQ(adjust(600 * kBlock), 1);
  expectInOrder({"Resizing existing partition with GPT index 1",
                 "failed to write GPT header and table to /dev/rdisk0s1 (return -1). "
                 "errno=5 : Input/output error"});
  EXPECT_EQ(said.find("Wrote GPT header back to disk"), std::string::npos);
  EXPECT_EQ(volumes.events, (Events{"open 0", "open 18", "write 4096 8192"}));  // no growth
  // Table, record blocks, partitions and backup as they were; only the free
  // space Update was being copied to has changed.
  EXPECT_TRUE(std::equal(before.begin(), before.begin() + 503 * kBlock, volumes.disk.begin()));
  EXPECT_TRUE(std::equal(before.end() - 2 * kBlock, before.end(), volumes.disk.end() - 2 * kBlock));

  // On a sound disk Update's bytes go with it, each block to its new place.
  volumes.blockIo = &volumes.diskIo;
  EXPECT_EQ(adjust(600 * kBlock), 0);
  ASSERT_EQ(entry(2).firstLBA(), 703u);
  for (std::uint64_t b = 0; b < 100; ++b)
    EXPECT_EQ(volumes.disk[(703 + b) * kBlock + 7], static_cast<std::uint8_t>(403 + b));
}

TEST_F(AdjustPartition, WithoutADataPartitionANewOneIsCreatedWithoutFileSystemStep) {
  makeDisk({{"System", 98}, {"Update", 100}});
  ASSERT_EQ(adjust(300 * kBlock), 0);
  expectInOrder({"Creating new partition instead of adjusting existing one",
                 "About to adjust with settings partitionIndex:2 size:1 MB"});
  EXPECT_EQ(volumes.events, (Events{"open 0", "open 18", "write 4096 8192", "sync"}));
  EXPECT_EQ(header().entryCount(), 3);
  EXPECT_EQ(entry(2).firstLBA(), 203u);
  EXPECT_EQ(entry(2).lastLBA(), 502u);
  EXPECT_EQ(entry(2).bytes[platform::gpt::kName], 'N');
}

TEST_F(AdjustPartition, ACreateThatCannotBeMadeIsReportedAsCreate) {
  std::vector<platform::gpt::PartitionSpec> eight(8, {"Other", 10});
  makeDisk(eight);
  EXPECT_EQ(adjust(10 * kBlock), 1);
  expectInOrder({"bad partion number", "failed to create partition 8"});
}

}  // namespace
}  // namespace storage::testing
