#include "platform/GptDisk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

namespace platform::gpt {
namespace {

constexpr std::uint32_t kBs = 4096;

Data assemble(const DiskImage& image, std::uint64_t blockCount) {
  Data disk(blockCount * kBs, 0);
  for (const auto& w : image.writes)
    std::copy(w.bytes.begin(), w.bytes.end(), disk.begin() + w.offset);
  return disk;
}

// Checks one header the way a GPT reader does: its own CRC and its entries'.
void expectValidHeader(const Data& disk, std::uint64_t lba, std::uint64_t alternate) {
  const std::uint8_t* h = &disk[lba * kBs];
  EXPECT_EQ(std::memcmp(h, "EFI PART", 8), 0);
  std::uint8_t copy[kHeaderSize];
  std::memcpy(copy, h, kHeaderSize);
  store32(copy + kHeaderCrc, 0);
  EXPECT_EQ(load32(h + kHeaderCrc), crc32({copy, kHeaderSize})) << "header at " << lba;
  EXPECT_EQ(load64(h + kMyLba), lba);
  EXPECT_EQ(load64(h + kAlternateLba), alternate);
  const std::uint64_t entries = load64(h + kEntryArrayLba);
  EXPECT_EQ(load32(h + kEntryArrayCrc),
            crc32({&disk[entries * kBs], load32(h + kEntryCount) * kEntrySize}));
}

TEST(GptDisk, Crc32IsTheStandardOne) {
  const char text[] = "123456789";
  EXPECT_EQ(crc32({reinterpret_cast<const std::uint8_t*>(text), 9}), 0xCBF43926u);
}

TEST(GptDisk, BuildsTheVolumeManagersLayout) {
  DiskLayout layout;
  layout.blockCount = 1024;
  layout.partitions = {{"System", 100}, {"Data", 0}, {"Update", 100}};
  auto image = buildDisk(layout);
  ASSERT_TRUE(image.ok());
  // A move record of an earlier disk on the same blocks is wiped.
  Data disk(1024 * kBs, 0);
  std::fill(disk.begin() + 3 * kBs, disk.begin() + 5 * kBs, 0x5A);
  for (const auto& w : image->writes)
    std::copy(w.bytes.begin(), w.bytes.end(), disk.begin() + w.offset);
  EXPECT_TRUE(std::all_of(disk.begin() + 3 * kBs, disk.begin() + 5 * kBs,
                          [](std::uint8_t b) { return b == 0; }));

  EXPECT_EQ(load32(&disk[kSignatureOffset]), kBrovSignature);
  EXPECT_EQ(disk[446 + 4], 0xEE);
  EXPECT_EQ(load32(&disk[446 + 8]), 1u);
  EXPECT_EQ(load32(&disk[446 + 12]), 1023u);
  EXPECT_EQ(disk[510], 0x55);
  EXPECT_EQ(disk[511], 0xAA);

  const std::uint8_t* h = &disk[kBs];
  EXPECT_EQ(load32(h + kEntryCount), 3u);  // partitions in use, not 128
  EXPECT_EQ(load64(h + kEntryArrayLba), 2u);
  EXPECT_EQ(load64(h + kFirstUsableLba), 5u);  // blocks 3 and 4: the move record
  EXPECT_EQ(load64(h + kLastUsableLba), 1021u);
  expectValidHeader(disk, 1, 1023);
  expectValidHeader(disk, 1023, 1);
  EXPECT_EQ(load64(&disk[1023 * kBs + kEntryArrayLba]), 1022u);
  EXPECT_EQ(std::memcmp(&disk[2 * kBs], &disk[1022 * kBs], 3 * kEntrySize), 0);

  ASSERT_EQ(image->partitions.size(), 3u);
  EXPECT_EQ(image->partitions[0].firstLba, 5u);
  EXPECT_EQ(image->partitions[1].firstLba, 105u);
  EXPECT_EQ(image->partitions[1].lastLba, 921u);
  EXPECT_EQ(image->partitions[2].lastLba, 1021u);
  const std::uint8_t* data = &disk[2 * kBs + kEntrySize];
  const std::uint8_t name[] = {'D', 0, 'a', 0, 't', 0, 'a', 0, 0, 0};
  EXPECT_EQ(std::memcmp(data + kName, name, sizeof name), 0);
  EXPECT_EQ(load64(data + kFirstLba), 105u);
  EXPECT_NE(std::memcmp(data + kUniqueGuid, &disk[2 * kBs + kUniqueGuid], 16), 0);
}

TEST(GptDisk, SealingRepairsStaleChecksumsAndRewritesTheBackup) {
  DiskLayout layout;
  layout.blockCount = 1024;
  layout.partitions = {{"System", 100}, {"Data", 0}};
  auto image = buildDisk(layout);
  ASSERT_TRUE(image.ok());
  Data disk = assemble(*image, 1024);

  // What the driver writes: a changed entry and count, checksums as they were.
  Data blocks(disk.begin() + kBs, disk.begin() + 3 * kBs);
  store32(&blocks[kEntryCount], 3);
  store64(&blocks[kBs + 2 * kEntrySize + kFirstLba], 500);
  store64(&blocks[kBs + 2 * kEntrySize + kLastLba], 600);
  auto sealed = sealTable(blocks, kBs, 1024);
  ASSERT_TRUE(sealed.ok());
  std::copy(sealed->primary.begin(), sealed->primary.end(), disk.begin() + kBs);
  for (const auto& w : sealed->backup)
    std::copy(w.bytes.begin(), w.bytes.end(), disk.begin() + w.offset);

  expectValidHeader(disk, 1, 1023);
  expectValidHeader(disk, 1023, 1);
  EXPECT_EQ(load32(&disk[1023 * kBs + kEntryCount]), 3u);
  EXPECT_EQ(load64(&disk[1022 * kBs + 2 * kEntrySize + kFirstLba]), 500u);
}

TEST(GptDisk, SealingRefusesTablesItCannotDescribe) {
  Data blocks(2 * kBs, 0);
  store32(&blocks[kEntrySizeField], 128);
  store32(&blocks[kEntryCount], 9);
  EXPECT_FALSE(sealTable(blocks, kBs, 1024).ok());
  store32(&blocks[kEntryCount], 8);
  EXPECT_TRUE(sealTable(blocks, kBs, 1024).ok());
  store32(&blocks[kEntrySizeField], 256);
  EXPECT_FALSE(sealTable(blocks, kBs, 1024).ok());
  store32(&blocks[kEntrySizeField], 128);
  EXPECT_FALSE(sealTable(blocks, kBs, 5).ok());
  EXPECT_FALSE(sealTable({blocks.data(), kBs}, kBs, 1024).ok());
}

}  // namespace
}  // namespace platform::gpt
