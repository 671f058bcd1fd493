#include "platform/linux/KernelPartitionMapper.h"

#include <algorithm>

namespace platform {

Status KernelPartitionMapper::prepare(std::span<const std::uint8_t> table,
                                      const std::vector<PartitionMove>& moves) {
  removed_.clear();
  shrunk_.clear();
  auto current = kernelPartitions(diskFd_);
  if (!current) return current.error();
  std::vector<ByteRange> copied;
  for (const auto& m : moves) {
    const std::uint64_t bytes = m.blocks * blockSize_;
    copied.push_back({m.from * blockSize_, m.from * blockSize_ + bytes});
    copied.push_back({m.to * blockSize_, m.to * blockSize_ + bytes});
  }
  plan_ = planReconcile(*current, partitionsOfTable(table, blockSize_), copied);
  for (const auto& p : plan_.remove) {
    if (auto s = removePartition(diskFd_, p); !s) {
      revert();
      return s;
    }
    removed_.push_back(p);
  }
  for (const auto& p : plan_.shrink) {
    auto was = std::find_if(current->begin(), current->end(),
                            [&](const KernelPartition& k) { return k.number == p.number; });
    if (auto s = resizePartition(diskFd_, p); !s) {
      revert();
      return s;
    }
    shrunk_.push_back(*was);
  }
  return Status::success();
}

void KernelPartitionMapper::revert() {
  for (auto it = shrunk_.rbegin(); it != shrunk_.rend(); ++it) (void)resizePartition(diskFd_, *it);
  for (const auto& p : removed_) (void)addPartition(diskFd_, p);
  shrunk_.clear();
  removed_.clear();
}

Status KernelPartitionMapper::complete() {
  for (const auto& p : plan_.grow) {
    if (auto s = resizePartition(diskFd_, p); !s) return s;
  }
  for (const auto& p : plan_.add) {
    if (auto s = addPartition(diskFd_, p); !s) return s;
  }
  return Status::success();
}

}  // namespace platform
