// The operating system's mapping of a disk's partitions (the kernel's
// partition devices on Linux), kept in line with the table as it is written.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "platform/MovePlan.h"
#include "platform/Result.h"

namespace platform {

class PartitionMapper {
 public:
  virtual ~PartitionMapper() = default;
  // Before anything is written: takes away the mappings that table (blocks 1
  // and 2) ends or moves and any over blocks the moves read or write, and
  // shrinks those that shrink. One in use refuses (EBUSY), and then every
  // mapping is as it was.
  virtual Status prepare(std::span<const std::uint8_t> table,
                         const std::vector<PartitionMove>& moves) = 0;
  // Puts back what prepare changed: the table was not written.
  virtual void revert() = 0;
  // After the table is on disk: grows and adds mappings.
  virtual Status complete() = 0;
};

}  // namespace platform
