// The kernel's partition devices of a whole-disk block device, kept in line
// with its table through BLKPG (for kernels without a GPT parser, and
// because a partition must be remapped when its start moves).
#pragma once

#include <cstdint>

#include "platform/PartitionMapper.h"
#include "platform/linux/KernelPartitions.h"

namespace platform {

class KernelPartitionMapper : public PartitionMapper {
 public:
  KernelPartitionMapper(int diskFd, std::uint32_t blockSize)
      : diskFd_(diskFd), blockSize_(blockSize) {}

  Status prepare(std::span<const std::uint8_t> table,
                 const std::vector<PartitionMove>& moves) override;
  void revert() override;
  Status complete() override;

 private:
  int diskFd_;
  std::uint32_t blockSize_;
  ReconcilePlan plan_;
  std::vector<KernelPartition> removed_;  // as they were
  std::vector<KernelPartition> shrunk_;   // as they were
};

}  // namespace platform
