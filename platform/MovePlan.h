// Which partitions a table write moves, and in what order their blocks can
// be copied without a copy overwriting blocks that another still has to
// read. Pure code, shared by the Linux volume layer and the in-memory disk.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/Result.h"

namespace platform {

// One partition's blocks copied from one place to another.
struct PartitionMove {
  std::uint32_t number = 0;  // GPT index + 1 in the table being written
  std::uint64_t from = 0;    // first block now
  std::uint64_t to = 0;      // first block afterwards
  std::uint64_t blocks = 0;  // how many are copied
  bool forward() const { return to > from; }
  std::uint64_t distance() const { return forward() ? to - from : from - to; }
  friend bool operator==(const PartitionMove&, const PartitionMove&) = default;
};

// The copies that writing newTable over oldTable (blocks 1 and 2 each)
// needs. A partition is the same in both tables when its unique GUID is; it
// moves when its first block changes, and keeps min(old, new) blocks. A
// created or deleted partition needs no copy, nor one whose start stays.
// Refuses with EINVAL a move that would leave the disk's usable blocks,
// overwrite another partition, cross another move or take one of two
// partitions sharing a GUID; with ENOSPC a move on a disk whose partitions
// cover the move record's blocks.
Result<std::vector<PartitionMove>> planMoves(std::span<const std::uint8_t> oldTable,
                                             std::span<const std::uint8_t> newTable,
                                             std::uint32_t blockSize, std::uint64_t blockCount);

// Whether no partition of the table covers the move record's blocks.
bool leavesRecordRoom(std::span<const std::uint8_t> table, std::uint32_t blockSize);

// Whether a move stays within the disk: it reads inside it, and writes
// between the move record and the backup table.
bool moveFitsDisk(const PartitionMove& move, std::uint64_t blockCount);

// What undoes the part of moves[0..current] already copied (progress blocks
// of moves[current]), newest first; empty when no copy has yet overwritten
// a block any move reads, so that the old places are still whole.
std::vector<PartitionMove> undoMoves(const std::vector<PartitionMove>& moves, std::uint32_t current,
                                     std::uint64_t progress);

}  // namespace platform
