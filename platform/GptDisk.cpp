#include "platform/GptDisk.h"

#include <algorithm>
#include <random>

namespace platform::gpt {
namespace {

constexpr std::uint64_t kPrimaryHeaderLba = 1;
constexpr std::uint64_t kPrimaryEntriesLba = 2;

const std::array<std::uint32_t, 256>& crcTable() {
  static const std::array<std::uint32_t, 256> table = [] {
    std::array<std::uint32_t, 256> t{};
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  return table;
}

Error invalid(const std::string& why) { return Error{"GPT", 22, why}; }

void putHeaderCrc(std::uint8_t* header) {
  store32(header + kHeaderCrc, 0);
  store32(header + kHeaderCrc, crc32({header, kHeaderSize}));
}

Data protectiveMbr(std::uint32_t blockSize, std::uint64_t blockCount) {
  Data mbr(blockSize, 0);
  store32(&mbr[kSignatureOffset], kBrovSignature);
  std::uint8_t* record = &mbr[446];
  record[1] = 0x00;  // CHS of LBA 1: head 0, sector 2, cylinder 0
  record[2] = 0x02;
  record[3] = 0x00;
  record[4] = 0xEE;
  record[5] = record[6] = record[7] = 0xFF;
  store32(record + 8, 1);
  std::uint64_t covered = blockCount - 1;
  store32(record + 12, covered > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<std::uint32_t>(covered));
  mbr[510] = 0x55;
  mbr[511] = 0xAA;
  return mbr;
}

}  // namespace

std::uint32_t load32(const std::uint8_t* p) {
  return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16 |
         std::uint32_t(p[3]) << 24;
}

std::uint64_t load64(const std::uint8_t* p) {
  return std::uint64_t(load32(p)) | std::uint64_t(load32(p + 4)) << 32;
}

void store32(std::uint8_t* p, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

void store64(std::uint8_t* p, std::uint64_t v) {
  store32(p, static_cast<std::uint32_t>(v));
  store32(p + 4, static_cast<std::uint32_t>(v >> 32));
}

std::uint32_t crc32(std::span<const std::uint8_t> bytes) {
  const auto& table = crcTable();
  std::uint32_t c = 0xFFFFFFFFu;
  for (std::uint8_t b : bytes) c = table[(c ^ b) & 0xFF] ^ (c >> 8);
  return c ^ 0xFFFFFFFFu;
}

std::array<std::uint8_t, 16> randomUuid() {
  static thread_local std::mt19937_64 engine{std::random_device{}()};
  std::array<std::uint8_t, 16> u{};
  for (std::size_t i = 0; i < u.size(); i += 8) {
    std::uint64_t r = engine();
    for (std::size_t k = 0; k < 8; ++k) u[i + k] = static_cast<std::uint8_t>(r >> (8 * k));
  }
  u[6] = static_cast<std::uint8_t>((u[6] & 0x0F) | 0x40);
  u[8] = static_cast<std::uint8_t>((u[8] & 0x3F) | 0x80);
  return u;
}

void storeAsciiName(std::uint8_t* field, const std::string& name) {
  std::fill(field, field + kNameSize, 0);
  for (std::size_t i = 0; i < name.size() && i < kNameSize / 2; ++i) {
    field[2 * i] = static_cast<std::uint8_t>(name[i]);
  }
}

std::vector<UsedEntry> usedEntries(std::span<const std::uint8_t> blocks1and2,
                                   std::uint32_t blockSize) {
  std::vector<UsedEntry> out;
  if (blockSize < kEntryTableSize || blocks1and2.size() < 2 * std::size_t(blockSize)) return out;
  const std::uint32_t count =
      std::min<std::uint32_t>(load32(&blocks1and2[kEntryCount]), kMaxEntries);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint8_t* e = &blocks1and2[blockSize + i * kEntrySize];
    // An all-zero type marks an unused slot; a reversed extent holds nothing.
    const bool unused =
        std::all_of(e + kTypeGuid, e + kTypeGuid + 16, [](std::uint8_t b) { return b == 0; });
    UsedEntry used;
    used.index = i;
    std::copy_n(e + kUniqueGuid, 16, used.uniqueGuid.begin());
    used.firstLba = load64(e + kFirstLba);
    used.lastLba = load64(e + kLastLba);
    if (!unused && used.firstLba <= used.lastLba) out.push_back(used);
  }
  return out;
}

Result<SealedTable> sealTable(std::span<const std::uint8_t> blocks1and2, std::uint32_t blockSize,
                              std::uint64_t blockCount) {
  if (blockSize < 512 || blocks1and2.size() != 2 * std::size_t(blockSize)) {
    return invalid("table blocks do not match the block size");
  }
  // Block 0, the two primary blocks, the backup entries and header, and at
  // least one usable block between them.
  if (blockCount < 6) return invalid("disk too small for a GPT and its backup");
  SealedTable sealed;
  sealed.primary.assign(blocks1and2.begin(), blocks1and2.end());
  std::uint8_t* header = sealed.primary.data();
  std::uint8_t* entries = header + blockSize;
  std::uint32_t count = load32(header + kEntryCount);
  if (load32(header + kEntrySizeField) != kEntrySize) return invalid("entry size is not 128");
  if (count > kMaxEntries) return invalid("more than 8 entries");

  const std::uint64_t lastLba = blockCount - 1;
  const std::uint64_t backupEntriesLba = lastLba - 1;
  std::uint32_t entriesCrc = crc32({entries, count * kEntrySize});
  store64(header + kMyLba, kPrimaryHeaderLba);
  store64(header + kAlternateLba, lastLba);
  store64(header + kEntryArrayLba, kPrimaryEntriesLba);
  store32(header + kEntryArrayCrc, entriesCrc);
  putHeaderCrc(header);

  Data backupEntries(blockSize, 0);
  std::copy(entries, entries + kEntryTableSize, backupEntries.begin());
  Data backupHeader(blockSize, 0);
  std::copy(header, header + kHeaderSize, backupHeader.begin());
  store64(&backupHeader[kMyLba], lastLba);
  store64(&backupHeader[kAlternateLba], kPrimaryHeaderLba);
  store64(&backupHeader[kEntryArrayLba], backupEntriesLba);
  putHeaderCrc(backupHeader.data());
  sealed.backup.push_back({backupEntriesLba * blockSize, std::move(backupEntries)});
  sealed.backup.push_back({lastLba * blockSize, std::move(backupHeader)});
  return sealed;
}

Result<DiskImage> buildDisk(const DiskLayout& layout) {
  const std::uint32_t bs = layout.blockSize;
  if (bs < 512 || (bs & (bs - 1)) != 0) return invalid("block size is not a power of two");
  if (layout.partitions.empty() || layout.partitions.size() > kMaxEntries) {
    return invalid("between 1 and 8 partitions are needed");
  }
  if (layout.blockCount < kFirstPartitionLba + 3) return invalid("disk too small");
  DiskImage image;
  image.firstUsableLba = kFirstPartitionLba;
  image.lastUsableLba = layout.blockCount - 3;  // backup entries and header follow

  const std::uint64_t usable = image.lastUsableLba - image.firstUsableLba + 1;
  std::uint64_t fixed = 0;
  int fillers = 0;
  for (const auto& p : layout.partitions) {
    if (p.blocks == 0) ++fillers;
    if (p.blocks > usable || fixed + p.blocks > usable) return invalid("partitions do not fit");
    fixed += p.blocks;
  }
  if (fillers > 1) return invalid("only one partition can fill the disk");
  if (fillers == 1 && fixed >= usable) return invalid("no room left for the filling partition");

  Data table(2 * std::size_t(bs), 0);
  std::uint8_t* header = table.data();
  std::uint8_t* entries = header + bs;
  std::copy_n("EFI PART", 8, header);
  store32(header + 8, 0x00010000);
  store32(header + 12, kHeaderSize);
  store64(header + kFirstUsableLba, image.firstUsableLba);
  store64(header + kLastUsableLba, image.lastUsableLba);
  auto diskGuid = randomUuid();
  std::copy(diskGuid.begin(), diskGuid.end(), header + kDiskGuid);
  store32(header + kEntryCount, static_cast<std::uint32_t>(layout.partitions.size()));
  store32(header + kEntrySizeField, kEntrySize);

  std::uint64_t next = image.firstUsableLba;
  for (std::size_t i = 0; i < layout.partitions.size(); ++i) {
    const auto& p = layout.partitions[i];
    std::uint64_t blocks = p.blocks ? p.blocks : usable - fixed;
    std::uint8_t* e = entries + i * kEntrySize;
    std::copy(kMarlPartitionType.begin(), kMarlPartitionType.end(), e + kTypeGuid);
    auto unique = randomUuid();
    std::copy(unique.begin(), unique.end(), e + kUniqueGuid);
    store64(e + kFirstLba, next);
    store64(e + kLastLba, next + blocks - 1);
    storeAsciiName(e + kName, p.name);
    image.partitions.push_back({p.name, next, next + blocks - 1});
    next += blocks;
  }

  auto sealed = sealTable(table, bs, layout.blockCount);
  if (!sealed) return sealed.error();
  image.writes.push_back({0, protectiveMbr(bs, layout.blockCount)});
  image.writes.push_back({std::uint64_t(bs), std::move(sealed->primary)});
  // A record left by an earlier disk on the same blocks must not be taken up.
  image.writes.push_back({kMoveRecordLba * bs, Data(kMoveRecordSlots * bs, 0)});
  for (auto& w : sealed->backup) image.writes.push_back(std::move(w));
  return image;
}

}  // namespace platform::gpt
