#include "platform/MoveRecord.h"

#include <algorithm>
#include <cstring>

namespace platform {
namespace {

constexpr char kMagic[8] = {'V', 'E', 'X', 'D', 'M', 'O', 'V', 'E'};
constexpr std::uint32_t kVersion = 1;

// Field offsets.
constexpr std::size_t kVersionAt = 8;
constexpr std::size_t kSizeAt = 12;
constexpr std::size_t kSequenceAt = 16;
constexpr std::size_t kBlockSizeAt = 24;
constexpr std::size_t kMoveCountAt = 28;
constexpr std::size_t kBlockCountAt = 32;
constexpr std::size_t kDiskGuidAt = 40;
constexpr std::size_t kCurrentAt = 56;
constexpr std::size_t kProgressAt = 64;
constexpr std::size_t kMovesAt = 72;
constexpr std::size_t kMoveSize = 32;
constexpr std::size_t kHeaderAt = kMovesAt + gpt::kMaxEntries * kMoveSize;  // 328
constexpr std::size_t kEntriesAt = kHeaderAt + gpt::kHeaderSize;            // 420
constexpr std::size_t kCrcAt = kEntriesAt + gpt::kEntryTableSize;           // 1444
static_assert(kCrcAt + 4 == kMoveRecordSize);

}  // namespace

Data encodeMoveRecord(const MoveRecord& r) {
  Data out(kMoveRecordSize, 0);
  std::uint8_t* p = out.data();
  std::memcpy(p, kMagic, sizeof kMagic);
  gpt::store32(p + kVersionAt, kVersion);
  gpt::store32(p + kSizeAt, kMoveRecordSize);
  gpt::store64(p + kSequenceAt, r.sequence);
  gpt::store32(p + kBlockSizeAt, r.blockSize);
  const std::size_t count = std::min(r.moves.size(), gpt::kMaxEntries);
  gpt::store32(p + kMoveCountAt, static_cast<std::uint32_t>(count));
  gpt::store64(p + kBlockCountAt, r.blockCount);
  std::copy(r.diskGuid.begin(), r.diskGuid.end(), p + kDiskGuidAt);
  gpt::store32(p + kCurrentAt, r.current);
  gpt::store64(p + kProgressAt, r.progress);
  for (std::size_t i = 0; i < count; ++i) {
    std::uint8_t* m = p + kMovesAt + i * kMoveSize;
    gpt::store32(m, r.moves[i].number);
    gpt::store64(m + 8, r.moves[i].from);
    gpt::store64(m + 16, r.moves[i].to);
    gpt::store64(m + 24, r.moves[i].blocks);
  }
  std::copy(r.header.begin(), r.header.end(), p + kHeaderAt);
  std::copy(r.entries.begin(), r.entries.end(), p + kEntriesAt);
  gpt::store32(p + kCrcAt, gpt::crc32({p, kCrcAt}));
  return out;
}

std::optional<MoveRecord> decodeMoveRecord(std::span<const std::uint8_t> slot) {
  if (slot.size() < kMoveRecordSize) return std::nullopt;
  const std::uint8_t* p = slot.data();
  if (std::memcmp(p, kMagic, sizeof kMagic) != 0 || gpt::load32(p + kVersionAt) != kVersion ||
      gpt::load32(p + kSizeAt) != kMoveRecordSize ||
      gpt::load32(p + kCrcAt) != gpt::crc32({p, kCrcAt})) {
    return std::nullopt;
  }
  MoveRecord r;
  const std::uint32_t count = gpt::load32(p + kMoveCountAt);
  r.current = gpt::load32(p + kCurrentAt);
  if (count > gpt::kMaxEntries || r.current > count) return std::nullopt;
  r.sequence = gpt::load64(p + kSequenceAt);
  r.blockSize = gpt::load32(p + kBlockSizeAt);
  r.blockCount = gpt::load64(p + kBlockCountAt);
  std::copy_n(p + kDiskGuidAt, 16, r.diskGuid.begin());
  r.progress = gpt::load64(p + kProgressAt);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint8_t* m = p + kMovesAt + i * kMoveSize;
    r.moves.push_back(
        {gpt::load32(m), gpt::load64(m + 8), gpt::load64(m + 16), gpt::load64(m + 24)});
  }
  std::copy_n(p + kHeaderAt, gpt::kHeaderSize, r.header.begin());
  std::copy_n(p + kEntriesAt, gpt::kEntryTableSize, r.entries.begin());
  return r;
}

Data recordedTable(const MoveRecord& r) {
  Data table(2 * std::size_t(r.blockSize), 0);
  if (r.blockSize < gpt::kEntryTableSize) return table;
  std::copy(r.header.begin(), r.header.end(), table.begin());
  std::copy(r.entries.begin(), r.entries.end(), table.begin() + r.blockSize);
  return table;
}

}  // namespace platform
