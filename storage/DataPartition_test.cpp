#include "storage/DataPartition.h"

#include <gtest/gtest.h>

#include "storage/StorageTestSupport.h"

namespace storage::testing {
namespace {

class DataPartition : public DiskTest {
 protected:
  void SetUp() override {
    DiskTest::SetUp();
    mount(1, "disk0s2", "/private/var");
  }
  void usage(platform::Value available, platform::Value capacity) {
    properties.diskUsage = platform::Dictionary{{"TotalDataAvailable", std::move(available)},
                                                {"TotalDataCapacity", std::move(capacity)}};
  }
  int shrink() {
    int r = 0;
    said = capturedStderr([&] { r = shrink_data_partition(services); });
    return r;
  }
  int expand() {
    int r = -1;
    said = capturedStderr([&] { r = expand_data_partition(services); });
    return r;
  }
  std::string said;
};

TEST_F(DataPartition, ShrinkKeepsTheUsedSpaceAndHalfTheFreeSpace) {
  // 819 blocks in all, 301 blocks and one byte free: half of it truncates.
  usage(static_cast<std::int64_t>(301 * kBlock + 1), static_cast<std::int64_t>(819 * kBlock));
  ASSERT_EQ(shrink(), 0);
  const std::int64_t newSize = 819 * kBlock - (301 * kBlock + 1) / 2;
  EXPECT_NE(said.find("freeSize = 1232897(bytes), totalSize = 3354624(bytes), newSize = " +
                      std::to_string(newSize) + "(bytes)\n\n\n"),
            std::string::npos)
      << said;
  // 668.5 blocks round up to 669.
  EXPECT_EQ(entry(1).blockCount(), 669u);
  EXPECT_EQ(volumes.events[1], "resize /private/var " + std::to_string(669 * kBlock));
}

TEST_F(DataPartition, ShrinkFailsWithoutUsableDiskUsage) {
  EXPECT_EQ(shrink(), -1);
  EXPECT_EQ(said, "Cannot get disk usage.\n");

  properties.diskUsage = platform::Dictionary{{"TotalDataCapacity", std::int64_t(1) << 30}};
  EXPECT_EQ(shrink(), -1);
  usage("lots", std::int64_t(1) << 30);
  EXPECT_EQ(shrink(), -1);
  properties.diskUsage = platform::Value("not a dictionary");
  EXPECT_EQ(shrink(), -1);
  EXPECT_EQ(said, "Disk usage lacks TotalDataAvailable or TotalDataCapacity.\n");
  EXPECT_TRUE(volumes.events.empty());
}

TEST_F(DataPartition, ShrinkTurnsEveryDriverFailureIntoMinusOne) {
  usage(std::int64_t(0), std::int64_t(819 * kBlock));
  EXPECT_EQ(shrink(), 0);  // no change in size still succeeds
  usage(std::int64_t(0), std::int64_t(0));
  EXPECT_EQ(shrink(), -1);  // the driver refuses 0 blocks with 1
}

TEST_F(DataPartition, ExpandGivesDataEveryBlockTheOthersLeave) {
  makeDisk({{"System", 98}, {"Data", 300}, {"Update", 100}});
  mount(1, "disk0s2", "/private/var");
  ASSERT_EQ(expand(), 0);
  EXPECT_NE(said.find("gpt.pth.first_lba = 5, last_lba = 1021\n"
                      "Partition 0: first = 5, last = 102, lbaNumber = 98\n"
                      "Partition 1: first = 103, last = 402, lbaNumber = 300\n"
                      "Partition 2: first = 403, last = 502, lbaNumber = 100\n"
                      "Block numbers that could be used as data partition = 819\n"
                      "newSize = 3354624(bytes)\n"
                      "entering adjust_partition\n"),
            std::string::npos)
      << said;
  EXPECT_EQ(entry(1).lastLBA(), 921u);
  EXPECT_EQ(entry(2).firstLBA(), 922u);
  EXPECT_EQ(entry(2).lastLBA(), kLastUsable);
  EXPECT_EQ(volumes.events.back(), "resize /private/var 3354624");
}

TEST_F(DataPartition, ExpandCountsIndex1AsDataWhateverItIsCalled) {
  // Data sits at index 2; expand still leaves index 1 out of the occupied sum.
  makeDisk({{"System", 98}, {"Update", 50}, {"Data", 300}});
  mount(2, "disk0s3", "/private/var");
  ASSERT_EQ(expand(), 0);
  EXPECT_EQ(entry(2).blockCount(), 1019u - 100 - 300);  // System and Data counted, Update not
  EXPECT_EQ(entry(1).firstLBA(), 103u);
  EXPECT_EQ(entry(1).blockCount(), 50u);
}

TEST_F(DataPartition, ExpandWithAnUnreadableTableStillCallsTheDriverWithZero) {
  volumes.disk[platform::gpt::kSignatureOffset] = 0;
  EXPECT_EQ(expand(), 1);
  EXPECT_EQ(said,
            "/dev/rdisk0s1 not managed by Brov\nnewSize = 0(bytes)\nentering adjust_partition\n"
            "/dev/rdisk0s1 not managed by Brov\n");
}

}  // namespace
}  // namespace storage::testing
