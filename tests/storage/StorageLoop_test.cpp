// "shrinkDataPartition:" and "expandDataPartition:" on a real disk: a loop
// device with 4096-byte sectors carrying the volume manager's GPT, its Data
// partition formatted btrfs and mounted with a file of known hash, and an
// Update partition full of random bytes that must survive every move.
#include <sys/mount.h>
#include <sys/statvfs.h>

#include <string>
#include <vector>

#include "platform/Value.h"
#include "tests/storage/LoopDisk.h"
#include "vexd_helper/QLXHMessageResponder.h"

namespace storage_loop {
namespace {

// Stands in for a record in blocks 3 and 4: nobody's record, so only a
// write of one would change it.
const std::vector<std::uint8_t> kSentinel(2 * kBlock, 0xA5);

class ResizeRequests : public LoopDisk {
 protected:
  QLXHMessageResponder responder;
};

TEST_F(ResizeRequests, ShrinkAndExpandResizeTableKernelPartitionAndFileSystemAndMoveUpdate) {
  ASSERT_NO_FATAL_FAILURE(makeDisk("--system 64M --data 1024M --update 32M"));
  ASSERT_NO_FATAL_FAILURE(formatAndMount(2, "data"));
  ASSERT_EQ(
      run("dd if=/dev/urandom of=" + folder + "/data/payload bs=1M count=24 status=none && sync")
          .status,
      0);
  const std::string hash = hashOfFile();
  const std::string update = fillWithPattern(3);
  const std::uint64_t lastUsable = 1536 * kMiB / kBlock - 3;  // backup entries and header follow

  // Shrink: used space plus half the free space, rounded up to blocks.
  struct statvfs st {};
  ASSERT_EQ(::statvfs((folder + "/data").c_str(), &st), 0);
  const std::int64_t total = st.f_blocks * st.f_frsize, free = st.f_bavail * st.f_frsize;
  const std::uint64_t wanted = (std::uint64_t(total - free / 2) + kBlock - 1) / kBlock * kBlock;
  ASSERT_TRUE(responder.shrinkDataPartition(platform::Value()));
  EXPECT_EQ(entry(1).bytes(), wanted);
  EXPECT_EQ(fileSystemSize("data"), wanted);
  EXPECT_EQ(entry(2).first, entry(1).last + 1);  // the unused Update followed, bytes and all
  EXPECT_EQ(hashOfPartition(3), update);
  expectKernelFollowsTable(3);
  EXPECT_EQ(hashOfFile(), hash);
  expectDiskAndFileSystemHealthy();

  // Expand from the shrunk state: everything System and Update leave.
  ASSERT_TRUE(responder.expandDataPartition(platform::Value()));
  EXPECT_EQ(entry(2).last, lastUsable);
  EXPECT_EQ(entry(1).last + 1, entry(2).first);
  EXPECT_EQ(entry(1).bytes(), (1536 - 64 - 32) * kMiB - 7 * kBlock);
  EXPECT_EQ(fileSystemSize("data"), entry(1).bytes());
  EXPECT_EQ(hashOfPartition(3), update);
  expectKernelFollowsTable(3);
  EXPECT_EQ(hashOfFile(), hash);
  expectDiskAndFileSystemHealthy();

  ASSERT_EQ(::umount2((folder + "/data").c_str(), 0), 0);
  mounted.pop_back();
  Ran check = run("btrfs check --readonly " + node(2));
  EXPECT_EQ(check.status, 0) << check.output;
}

TEST_F(ResizeRequests, AnUpdatePartitionInUseCannotMoveSoTheExpandFailsUntouched) {
  ASSERT_NO_FATAL_FAILURE(makeDisk("--system 64M --data 512M --update 128M"));
  ASSERT_NO_FATAL_FAILURE(formatAndMount(2, "data"));
  ASSERT_NO_FATAL_FAILURE(formatAndMount(3, "update"));
  ASSERT_NO_FATAL_FAILURE(writeDisk(kSentinel, 3 * kBlock));
  const Extent data = entry(1), update = entry(2);
  const auto kernelUpdate = kernel(3);
  const std::uint64_t size = fileSystemSize("data");
  const std::string updateBytes = hashOfPartition(3);

  ::testing::internal::CaptureStderr();
  const bool expanded = responder.expandDataPartition(platform::Value());
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_FALSE(expanded);
  EXPECT_NE(
      said.find("failed to write GPT header and table to /dev/rdisk0s1 (return -1). errno=16"),
      std::string::npos)
      << said;
  EXPECT_EQ(said.find("expanding Marl filesystem"), std::string::npos);
  EXPECT_EQ(fileSystemSize("data"), size);
  EXPECT_EQ(entry(1).last, data.last);  // nothing was written: no table, no record
  EXPECT_EQ(entry(2).first, update.first);
  EXPECT_EQ(readDisk(3 * kBlock, 2 * kBlock), kSentinel);
  EXPECT_EQ(hashOfPartition(3), updateBytes);
  EXPECT_EQ(kernel(3), kernelUpdate);
  expectKernelFollowsTable(3);
  expectDiskAndFileSystemHealthy();

  // Once Update is no longer mounted, it moves and its file system with it.
  ASSERT_EQ(::umount2((folder + "/update").c_str(), 0), 0);
  mounted.pop_back();
  const std::string unmounted = hashOfPartition(3);
  ASSERT_TRUE(responder.expandDataPartition(platform::Value()));
  EXPECT_GT(entry(2).first, update.first);
  EXPECT_EQ(fileSystemSize("data"), entry(1).bytes());
  EXPECT_EQ(hashOfPartition(3), unmounted);
  Ran check = run("btrfs check --readonly " + node(3));
  EXPECT_EQ(check.status, 0) << check.output;
  expectKernelFollowsTable(3);
  expectDiskAndFileSystemHealthy();
}

TEST_F(ResizeRequests, ATableThatMovesNothingWritesNoRecord) {
  ASSERT_NO_FATAL_FAILURE(makeDisk("--system 64M --data 512M --update 0"));
  ASSERT_NO_FATAL_FAILURE(formatAndMount(2, "data"));
  ASSERT_NO_FATAL_FAILURE(writeDisk(kSentinel, 3 * kBlock));
  ASSERT_TRUE(responder.shrinkDataPartition(platform::Value()));
  ASSERT_TRUE(responder.expandDataPartition(platform::Value()));
  EXPECT_EQ(entry(1).last, 1536 * kMiB / kBlock - 3);
  EXPECT_EQ(readDisk(3 * kBlock, 2 * kBlock), kSentinel);
  expectKernelFollowsTable(2);
  expectDiskAndFileSystemHealthy();
}

}  // namespace
}  // namespace storage_loop
