// The data disk on Linux: a whole-disk block device standing in for the raw
// disk node. A write that touches the table blocks (1 and 2) is completed
// the way the volume manager completes it: the table is sealed on disk (both
// CRCs, backup GPT) and the kernel's partitions follow it, before the write
// returns.
#pragma once

#include "platform/VolumeLayer.h"
#include "platform/linux/KernelPartitions.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

class LinuxDiskDevice : public DiskDevice {
 public:
  explicit LinuxDiskDevice(UniqueFd fd) : fd_(std::move(fd)) {}

  Result<bool> isRawDisk() override;
  Result<std::uint32_t> blockSize() override;
  Result<std::uint64_t> blockCount() override;
  Result<std::size_t> pread(std::span<std::uint8_t> buffer, std::uint64_t offset) override;
  Result<std::size_t> pwrite(std::span<const std::uint8_t> bytes, std::uint64_t offset) override;

  // Brings the kernel's partitions in line with the table on disk, as after
  // a table write (used to map a freshly made disk).
  Status reconcile();

 private:
  // Block size and count for sealing: the device's, or 4096-byte blocks of
  // an image file.
  Result<std::pair<std::uint32_t, std::uint64_t>> geometry();
  Status writeAll(std::span<const std::uint8_t> bytes, std::uint64_t offset);
  Status applyAfterWrite(const ReconcilePlan& plan);
  void restore(const std::vector<KernelPartition>& removed);
  Result<std::size_t> writeTable(std::span<const std::uint8_t> bytes, std::uint64_t offset,
                                 std::uint32_t blockSize, std::uint64_t blockCount);

  UniqueFd fd_;
};

}  // namespace platform
