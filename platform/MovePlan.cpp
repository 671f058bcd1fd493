#include "platform/MovePlan.h"

#include <algorithm>
#include <cerrno>
#include <string>

#include "platform/GptDisk.h"

namespace platform {
namespace {

// Inclusive block ranges, so that an extent ending at the last 64-bit
// block number cannot overflow.
bool overlaps(std::uint64_t a0, std::uint64_t a1, std::uint64_t b0, std::uint64_t b1) {
  return a0 <= b1 && b0 <= a1;
}
std::uint64_t lastOf(std::uint64_t first, std::uint64_t blocks) { return first + blocks - 1; }

Error refused(int code, const std::string& why) { return Error::posix(code, why); }

}  // namespace

bool leavesRecordRoom(std::span<const std::uint8_t> table, std::uint32_t blockSize) {
  const auto used = gpt::usedEntries(table, blockSize);
  return std::none_of(used.begin(), used.end(), [](const gpt::UsedEntry& e) {
    return overlaps(e.firstLba, e.lastLba, gpt::kMoveRecordLba,
                    gpt::kMoveRecordLba + gpt::kMoveRecordSlots - 1);
  });
}

bool moveFitsDisk(const PartitionMove& m, std::uint64_t blockCount) {
  // The last two blocks hold the backup entries and header.
  if (m.blocks == 0 || m.from == m.to || blockCount < gpt::kFirstPartitionLba + 3) return false;
  const std::uint64_t writableEnd = blockCount - 2;
  return m.from < blockCount && m.blocks <= blockCount - m.from &&
         m.to >= gpt::kFirstPartitionLba && m.to < writableEnd && m.blocks <= writableEnd - m.to;
}

Result<std::vector<PartitionMove>> planMoves(std::span<const std::uint8_t> oldTable,
                                             std::span<const std::uint8_t> newTable,
                                             std::uint32_t blockSize, std::uint64_t blockCount) {
  const auto before = gpt::usedEntries(oldTable, blockSize);
  const auto after = gpt::usedEntries(newTable, blockSize);
  auto sameGuid = [](const std::vector<gpt::UsedEntry>& list, const gpt::UsedEntry& e) {
    std::vector<gpt::UsedEntry> found;
    for (const auto& x : list)
      if (x.uniqueGuid == e.uniqueGuid) found.push_back(x);
    return found;
  };

  std::vector<PartitionMove> moves;
  for (const auto& e : after) {
    const auto was = sameGuid(before, e);
    if (was.empty()) continue;  // created
    if (std::any_of(was.begin(), was.end(),
                    [&](const auto& w) { return w.firstLba == e.firstLba; }))
      continue;  // stays where it is
    if (was.size() > 1 || sameGuid(after, e).size() > 1)
      return refused(EINVAL, "partitions that share a unique GUID cannot be moved");
    const std::uint64_t blocks =
        std::min(was[0].lastLba - was[0].firstLba, e.lastLba - e.firstLba) + 1;
    moves.push_back({e.index + 1, was[0].firstLba, e.firstLba, blocks});
  }
  if (moves.empty()) return moves;

  for (const auto& m : moves) {
    if (!moveFitsDisk(m, blockCount))
      return refused(EINVAL, "partition " + std::to_string(m.number) + " would leave the disk");
  }
  if (!leavesRecordRoom(oldTable, blockSize) || !leavesRecordRoom(newTable, blockSize))
    return refused(ENOSPC, "no room for a move record: a partition covers blocks 3 and 4");
  for (const auto& m : moves) {
    for (const auto& e : after) {
      if (e.index + 1 != m.number && overlaps(m.to, lastOf(m.to, m.blocks), e.firstLba, e.lastLba))
        return refused(EINVAL, "partition " + std::to_string(m.number) +
                                   " would be moved over partition " + std::to_string(e.index + 1));
    }
  }

  // Each copy goes once no other pending copy still reads where it writes;
  // a copy overlapping its own source is made safe by its direction.
  std::vector<PartitionMove> ordered;
  while (!moves.empty()) {
    auto ready = std::find_if(moves.begin(), moves.end(), [&](const PartitionMove& m) {
      return std::none_of(moves.begin(), moves.end(), [&](const PartitionMove& other) {
        return &other != &m &&
               overlaps(m.to, lastOf(m.to, m.blocks), other.from, lastOf(other.from, other.blocks));
      });
    });
    if (ready == moves.end()) return refused(EINVAL, "the partition moves cross each other");
    ordered.push_back(*ready);
    moves.erase(ready);
  }
  return ordered;
}

std::vector<PartitionMove> undoMoves(const std::vector<PartitionMove>& moves, std::uint32_t current,
                                     std::uint64_t progress) {
  std::vector<PartitionMove> undo;
  for (std::uint32_t i = std::min<std::size_t>(current + 1, moves.size()); i-- > 0;) {
    const PartitionMove& m = moves[i];
    const std::uint64_t done = i < current ? m.blocks : std::min(progress, m.blocks);
    if (done == 0) continue;
    // Forward copies run back to front, so their done part is the tail.
    const std::uint64_t offset = m.forward() && i == current ? m.blocks - done : 0;
    undo.push_back({m.number, m.to + offset, m.from + offset, done});
  }
  // Whole sources everywhere (a failed write may have reached anywhere in
  // its move's destination): the old table is right as it stands.
  bool clobbered = false;
  for (std::uint32_t i = 0; i <= current && i < moves.size(); ++i) {
    const PartitionMove& d = moves[i];
    clobbered = clobbered || std::any_of(moves.begin(), moves.end(), [&](const PartitionMove& m) {
                  return overlaps(d.to, lastOf(d.to, d.blocks), m.from, lastOf(m.from, m.blocks));
                });
  }
  if (!clobbered) undo.clear();
  return undo;
}

}  // namespace platform
