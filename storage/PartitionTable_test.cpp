#include "storage/PartitionTable.h"

#include <gtest/gtest.h>

#include "storage/StorageTestSupport.h"

namespace storage::testing {
namespace {

class PartitionTableRead : public DiskTest {
 protected:
  int read() {
    said = capturedStderr([&] { result = read_partition_table(services, &gpt, &geometry); });
    return result;
  }
  int result = -1;
  GPTHeaderRecord gpt;
  BrovMediaGeometry geometry;
  std::string said;
};

TEST_F(PartitionTableRead, FillsTheRecordsAndFindsTheNamedPartitions) {
  ASSERT_EQ(read(), 1);
  EXPECT_EQ(volumes.openedPath, "/dev/rdisk0s1");
  EXPECT_EQ(volumes.events, std::vector<std::string>{"open 0"});
  EXPECT_EQ(geometry.mediaSize, kBlocks * kBlock);
  EXPECT_EQ(geometry.blockSize, kBlock);
  EXPECT_EQ(gpt.header.firstUsableLBA(), kFirstUsable);
  EXPECT_EQ(gpt.header.lastUsableLBA(), kLastUsable);
  EXPECT_EQ(gpt.header.entryCount(), 3);
  EXPECT_EQ(gpt.entries[1].firstLBA(), 103u);
  EXPECT_EQ(partition_name_table[0].index, 0);
  EXPECT_EQ(partition_name_table[1].index, 1);
  EXPECT_EQ(partition_name_table[2].index, 2);
  EXPECT_EQ(said, "");
}

TEST_F(PartitionTableRead, NameIndicesOutliveATableThatNoLongerHasTheName) {
  makeDisk({{"Update", 50}, {"Data", 0}, {"Data", 50}});
  ASSERT_EQ(read(), 1);
  EXPECT_EQ(partition_name_table[1].index, 2);  // the later of two equal names wins
  EXPECT_EQ(partition_name_table[2].index, 0);
  EXPECT_EQ(partition_name_table[0].index, -1);

  makeDisk({{"System", 50}, {"Other", 0}});
  ASSERT_EQ(read(), 1);
  EXPECT_EQ(partition_name_table[0].index, 0);
  EXPECT_EQ(partition_name_table[1].index, 2);  // kept, though index 2 is now unused
  EXPECT_EQ(partition_name_table[2].index, 0);
}

TEST_F(PartitionTableRead, MoreEntriesThanTheTableHoldsAreRefused) {
  platform::gpt::store32(&volumes.disk[kBlock + platform::gpt::kEntryCount], 9);
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(said, "GPT on /dev/rdisk0s1 lists 9 partitions, more than the 8 it can hold\n");
  EXPECT_EQ(partition_name_table[1].index, -1);
}

TEST_F(PartitionTableRead, ADiskWithoutTheSignatureWordIsNotManaged) {
  volumes.disk[platform::gpt::kSignatureOffset] ^= 1;
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(said, "/dev/rdisk0s1 not managed by Brov\n");
}

TEST_F(PartitionTableRead, DeviceFailuresAreLoggedAndRefused) {
  volumes.openFails = true;
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(said, "failed to open /dev/rdisk0s1\n");
  volumes.openFails = false;

  volumes.rawDisk = std::nullopt;
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(said, "failed to stat /dev/rdisk0s1\n");
  volumes.rawDisk = false;
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(said, "/dev/rdisk0s1 is not a suitable device (try /dev/rdisk*)\n");
  volumes.rawDisk = true;

  volumes.blockSizeFails = true;
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(said, "ioctl DKIOCGETBLOCKSIZE failed\n");
  volumes.blockSizeFails = false;
  volumes.blockCountFails = true;
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(said, "ioctl DKIOCGETBLOCKCOUNT failed\n");
}

TEST_F(PartitionTableRead, MediaTheVolumeManagerCannotDescribeIsNotSuitable) {
  volumes.diskBlockSize = 2048;
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(said, "brov: media block size too small\nDevice /dev/rdisk0s1 not suitable\n");
}

TEST_F(PartitionTableRead, ShortReadsAreRefused) {
  volumes.disk.resize(kBlock + 100);  // block 0 complete, block 1 not
  EXPECT_EQ(read(), 0);
  // Media this small only draws the geometry warning before the read.
  EXPECT_EQ(said,
            "brov: media too small\nFailed to read GPT header and table from /dev/rdisk0s1\n");
  volumes.disk.resize(kBlock);
  volumes.diskBlockSize = 8192;  // one block of 8192 that holds only 4096 bytes
  EXPECT_EQ(read(), 0);
  EXPECT_EQ(said, "brov: media too small\nFailed to read MBR from /dev/rdisk0s1\n");
}

}  // namespace
}  // namespace storage::testing
