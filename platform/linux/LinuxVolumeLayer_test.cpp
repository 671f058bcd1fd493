#include "platform/linux/LinuxVolumeLayer.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "platform/GptDisk.h"
#include "platform/linux/MountTable.h"

namespace platform {
namespace {

TEST(MountTable, ParsesMountInfoWithOptionalFieldsAndEscapes) {
  const std::string text =
      "27 1 254:0 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
      "90 27 0:52 / /mnt/my\\040disk rw - btrfs /tmp/x/dev/loop0p2 rw,space_cache=v2\n"
      "garbage line\n"
      "22 27 0:21 / /proc rw,relatime - proc proc rw\n";
  auto lines = parseMountInfo(text);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].mountPoint, "/");
  EXPECT_EQ(lines[0].fileSystemType, "ext4");
  EXPECT_EQ(lines[0].source, "/dev/vda");
  EXPECT_EQ(lines[1].mountPoint, "/mnt/my disk");
  EXPECT_EQ(lines[1].fileSystemType, "btrfs");
  EXPECT_EQ(lines[1].source, "/tmp/x/dev/loop0p2");
  EXPECT_EQ(lines[2].source, "proc");
}

class ImageFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/vexd-volume-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    folder = dir;
    path = folder + "/disk.img";
    gpt::DiskLayout layout;
    layout.blockCount = 256;
    layout.partitions = {{"System", 10}, {"Data", 0}, {"Update", 10}};
    auto image = gpt::buildDisk(layout);
    ASSERT_TRUE(image.ok());
    disk.assign(256 * 4096, 0);
    for (const auto& w : image->writes)
      std::copy(w.bytes.begin(), w.bytes.end(), disk.begin() + w.offset);
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(disk.data()), disk.size());
  }
  void TearDown() override {
    ::unlink(path.c_str());
    ::rmdir(folder.c_str());
  }
  Data reread() {
    std::ifstream in(path, std::ios::binary);
    return Data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  std::string folder, path;
  Data disk;
};

TEST_F(ImageFile, AnImageFileIsNotTheRawDisk) {
  LinuxVolumeLayer layer({{"/dev/rdisk0s1", path}});
  auto device = layer.openDisk("/dev/rdisk0s1", VolumeLayer::kReadOnly);
  ASSERT_TRUE(device.ok());
  auto raw = (*device)->isRawDisk();
  ASSERT_TRUE(raw.ok());
  EXPECT_FALSE(*raw);
  EXPECT_FALSE((*device)->blockSize().ok());  // no block-size ioctl on a file
  EXPECT_FALSE(layer.openDisk("/dev/rdisk0s2", VolumeLayer::kReadOnly).ok());
  EXPECT_FALSE(layer.partitionUUID(path).ok());  // not a block device
}

TEST_F(ImageFile, WritingTheTableBlocksSealsChecksumsAndBackup) {
  LinuxVolumeLayer layer({{"/dev/rdisk0s1", path}});
  auto device = layer.openDisk("/dev/rdisk0s1", VolumeLayer::kReadWrite | VolumeLayer::kSharedLock);
  ASSERT_TRUE(device.ok());
  // What the driver writes: Data shrunk, Update moved, CRC fields stale.
  Data blocks(disk.begin() + 4096, disk.begin() + 3 * 4096);
  gpt::store64(&blocks[4096 + 128 + gpt::kLastLba], 100);
  gpt::store64(&blocks[4096 + 256 + gpt::kFirstLba], 101);
  gpt::store64(&blocks[4096 + 256 + gpt::kLastLba], 110);
  auto written = (*device)->pwrite(blocks, 4096);
  ASSERT_TRUE(written.ok()) << written.error().description;
  EXPECT_EQ(*written, blocks.size());

  Data after = reread();
  auto expected = gpt::sealTable(blocks, 4096, 256);
  ASSERT_TRUE(expected.ok());
  EXPECT_TRUE(std::equal(expected->primary.begin(), expected->primary.end(), after.begin() + 4096));
  EXPECT_NE(gpt::load32(&after[4096 + gpt::kEntryArrayCrc]),
            gpt::load32(&blocks[gpt::kEntryArrayCrc]));
  EXPECT_EQ(gpt::load64(&after[255 * 4096 + gpt::kMyLba]), 255u);
  EXPECT_EQ(gpt::load64(&after[254 * 4096 + 256 + gpt::kFirstLba]), 101u);
  EXPECT_TRUE(std::equal(disk.begin(), disk.begin() + 4096, after.begin()));  // MBR untouched
}

TEST_F(ImageFile, AnUnsealableTableIsNotWritten) {
  LinuxVolumeLayer layer({{"/dev/rdisk0s1", path}});
  auto device = layer.openDisk("/dev/rdisk0s1", VolumeLayer::kReadWrite);
  ASSERT_TRUE(device.ok());
  Data blocks(disk.begin() + 4096, disk.begin() + 3 * 4096);
  gpt::store32(&blocks[gpt::kEntryCount], 9);
  auto written = (*device)->pwrite(blocks, 4096);
  ASSERT_FALSE(written.ok());
  EXPECT_EQ(written.error().code, 22);
  EXPECT_EQ(reread(), disk);
}

TEST(LinuxVolumeLayer, MountRecordsAreDeviceBackedAndBtrfsIsMarl) {
  char name[] = "/tmp/vexd-mountinfo-XXXXXX";
  int fd = ::mkstemp(name);
  ASSERT_GE(fd, 0);
  ::close(fd);
  std::ofstream(name) << "1 0 0:1 / /proc rw - proc proc rw\n"
                         "2 0 0:2 / /data rw - btrfs /dev/null rw\n"
                         "3 0 0:3 / /x rw - tmpfs tmpfs rw\n";
  LinuxVolumeLayer layer({}, name);
  auto records = layer.mountRecords(8);
  ::unlink(name);
  ASSERT_TRUE(records.ok());
  // /dev/null is a character device: not device-backed.
  EXPECT_TRUE(records->empty());
}

}  // namespace
}  // namespace platform
