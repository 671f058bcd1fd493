// The on-disk form of the data disk's partition table as the volume layer
// presents it: a protective MBR carrying the volume manager's signature word,
// a GPT header in block 1 whose entry count is the number of partitions in
// use (at most 8), the entry array in block 2 and a backup GPT at the end.
// Blocks 3 and 4 belong to no partition: the volume layer keeps its record
// of a partition move there. Pure byte work, shared by the volume layer's
// sealing, the test disk builder (tools/qlx-mkdisk) and the tests.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/Result.h"
#include "platform/Value.h"

namespace platform::gpt {

inline constexpr std::uint32_t kBrovSignature = 0x42726F76;
inline constexpr std::size_t kSignatureOffset = 440;
inline constexpr std::uint32_t kBlockSize = 4096;
inline constexpr std::size_t kHeaderSize = 92;
inline constexpr std::size_t kEntrySize = 128;
inline constexpr std::size_t kMaxEntries = 8;
inline constexpr std::size_t kEntryTableSize = kEntrySize * kMaxEntries;  // 1024

// The two slots of the volume layer's move record, between the entry array
// and the first block the builder gives a partition.
inline constexpr std::uint64_t kMoveRecordLba = 3;
inline constexpr std::uint64_t kMoveRecordSlots = 2;
inline constexpr std::uint64_t kFirstPartitionLba = kMoveRecordLba + kMoveRecordSlots;

// GPT header fields (offsets within block 1).
inline constexpr std::size_t kHeaderCrc = 16;
inline constexpr std::size_t kMyLba = 24;
inline constexpr std::size_t kAlternateLba = 32;
inline constexpr std::size_t kFirstUsableLba = 40;
inline constexpr std::size_t kLastUsableLba = 48;
inline constexpr std::size_t kDiskGuid = 56;
inline constexpr std::size_t kEntryArrayLba = 72;
inline constexpr std::size_t kEntryCount = 80;
inline constexpr std::size_t kEntrySizeField = 84;
inline constexpr std::size_t kEntryArrayCrc = 88;

// GPT entry fields (offsets within one 128-byte entry).
inline constexpr std::size_t kTypeGuid = 0;
inline constexpr std::size_t kUniqueGuid = 16;
inline constexpr std::size_t kFirstLba = 32;
inline constexpr std::size_t kLastLba = 40;
inline constexpr std::size_t kAttributes = 48;
inline constexpr std::size_t kName = 56;
inline constexpr std::size_t kNameSize = 72;

// The partition type the volume manager gives its file-system partitions,
// stored in standard UUID byte order (the volume manager never converts it).
inline constexpr std::array<std::uint8_t, 16> kMarlPartitionType = {
    0x4D, 0x41, 0x52, 0x4C, 0x7E, 0x51, 0x4B, 0x0A, 0x9D, 0x3C, 0x2F, 0x6A, 0x81, 0xC0, 0x5E, 0x17};

std::uint32_t load32(const std::uint8_t* p);
std::uint64_t load64(const std::uint8_t* p);
void store32(std::uint8_t* p, std::uint32_t v);
void store64(std::uint8_t* p, std::uint64_t v);

// The CRC-32 of GPT headers and entry arrays (IEEE 802.3, reflected).
std::uint32_t crc32(std::span<const std::uint8_t> bytes);

// A random (version 4) UUID in standard byte order.
std::array<std::uint8_t, 16> randomUuid();

// "System" etc. as a zero-padded 72-byte UTF-16LE name field (ASCII only).
void storeAsciiName(std::uint8_t* field, const std::string& name);

// An entry in use: within the header's count (at most 8), with a partition
// type, and first LBA <= last LBA.
struct UsedEntry {
  std::uint32_t index = 0;
  std::array<std::uint8_t, 16> uniqueGuid{};
  std::uint64_t firstLba = 0;
  std::uint64_t lastLba = 0;  // inclusive
};
std::vector<UsedEntry> usedEntries(std::span<const std::uint8_t> blocks1and2,
                                   std::uint32_t blockSize);

// One write of a disk image: bytes to put at a byte offset.
struct BlockWrite {
  std::uint64_t offset = 0;
  Data bytes;
};

// Primary blocks 1 and 2 made consistent again, and the backup GPT that
// goes with them: what the volume layer writes after the table changed.
struct SealedTable {
  Data primary;                    // blocks 1 and 2, both CRC fields recomputed
  std::vector<BlockWrite> backup;  // backup entry block and backup header
};

// Recomputes both CRC fields of the primary table in blocks 1 and 2 (the
// entry array is always block 2) and builds the backup for a disk of
// blockCount blocks. Refuses tables it cannot describe (entry size other
// than 128, more than 8 entries, a disk too small for a backup).
Result<SealedTable> sealTable(std::span<const std::uint8_t> blocks1and2, std::uint32_t blockSize,
                              std::uint64_t blockCount);

struct PartitionSpec {
  std::string name;
  std::uint64_t blocks = 0;  // 0: fill what the others leave (one partition at most)
};

struct DiskLayout {
  std::uint32_t blockSize = kBlockSize;
  std::uint64_t blockCount = 0;
  std::vector<PartitionSpec> partitions;  // in table order, back to back
};

struct PlacedPartition {
  std::string name;
  std::uint64_t firstLba = 0;
  std::uint64_t lastLba = 0;  // inclusive
};

struct DiskImage {
  std::vector<BlockWrite> writes;  // MBR, primary table, empty move record, backup table
  std::uint64_t firstUsableLba = 0;
  std::uint64_t lastUsableLba = 0;
  std::vector<PlacedPartition> partitions;
};

// Lays the partitions out from the first usable block (kFirstPartitionLba),
// the way the volume manager packs them, and produces every block of the
// partition table, with the move record's slots cleared.
Result<DiskImage> buildDisk(const DiskLayout& layout);

}  // namespace platform::gpt
