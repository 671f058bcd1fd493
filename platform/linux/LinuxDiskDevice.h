// The data disk on Linux: a whole-disk block device standing in for the raw
// disk node. A write of the table blocks (1 and 2) is completed the way the
// volume manager completes it (platform/TableCommit): partitions whose start
// moves are copied to their new place, the table is sealed on disk (both
// CRCs, backup GPT) and the kernel's partitions follow it, before the write
// returns.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/BlockIo.h"
#include "platform/VolumeLayer.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

class TableCommit;

// Lets a test put a forwarding wrapper around the layer's own block I/O.
using BlockIoWrapper = std::function<std::unique_ptr<BlockIo>(std::unique_ptr<BlockIo>)>;

class LinuxDiskDevice : public DiskDevice {
 public:
  LinuxDiskDevice(UniqueFd fd, std::string path, BlockIoWrapper wrapper = {})
      : fd_(std::move(fd)), path_(std::move(path)), wrapper_(std::move(wrapper)) {}

  Result<bool> isRawDisk() override;
  Result<std::uint32_t> blockSize() override;
  Result<std::uint64_t> blockCount() override;
  Result<std::size_t> pread(std::span<std::uint8_t> buffer, std::uint64_t offset) override;
  Result<std::size_t> pwrite(std::span<const std::uint8_t> bytes, std::uint64_t offset) override;

  // Finishes a table write cut short, then brings the kernel's partitions in
  // line with the table on disk (used to map a disk after attaching it).
  Status mapPartitions();

 private:
  // Block size and count for sealing: the device's, or 4096-byte blocks of
  // an image file.
  Result<std::pair<std::uint32_t, std::uint64_t>> geometry();
  Status writeAll(std::span<const std::uint8_t> bytes, std::uint64_t offset);
  // Runs work on a table commit over this disk.
  Status withCommit(const std::function<Status(TableCommit&)>& work);

  UniqueFd fd_;
  std::string path_;
  BlockIoWrapper wrapper_;
};

}  // namespace platform
