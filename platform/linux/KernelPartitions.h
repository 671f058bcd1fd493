// The kernel's partition mapping of a whole-disk block device, and the
// BLKPG steps that bring it in line with a partition table.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/Result.h"

namespace platform {

struct KernelPartition {
  int number = 0;            // GPT index + 1
  std::uint64_t start = 0;   // bytes
  std::uint64_t length = 0;  // bytes
  friend bool operator==(const KernelPartition&, const KernelPartition&) = default;
};

// The steps, in the order they can be applied without two partitions ever
// overlapping: removals (gone, or start moved) and shrinks before the table
// is written, growths and additions after it.
struct ReconcilePlan {
  std::vector<KernelPartition> remove;  // as the kernel has them now
  std::vector<KernelPartition> shrink;
  std::vector<KernelPartition> grow;
  std::vector<KernelPartition> add;
  bool empty() const { return remove.empty() && shrink.empty() && grow.empty() && add.empty(); }
};

// Bytes [start, end) of the disk that a partition move reads or writes.
struct ByteRange {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
};

// The partitions a sealed table in blocks 1 and 2 describes.
std::vector<KernelPartition> partitionsOfTable(std::span<const std::uint8_t> blocks1and2,
                                               std::uint32_t blockSize);

// copied: what partition moves will read and write before the table is
// written. No mapping may cover it meanwhile (once shrunk), so any that
// would is removed first and added back afterwards.
ReconcilePlan planReconcile(const std::vector<KernelPartition>& current,
                            const std::vector<KernelPartition>& wanted,
                            const std::vector<ByteRange>& copied = {});

// The kernel's partitions of the block device open as diskFd (from sysfs);
// empty for anything that is not a block device.
Result<std::vector<KernelPartition>> kernelPartitions(int diskFd);

// BLKPG on the whole-disk descriptor.
Status addPartition(int diskFd, const KernelPartition& p);
Status removePartition(int diskFd, const KernelPartition& p);
Status resizePartition(int diskFd, const KernelPartition& p);

}  // namespace platform
