// The volume layer on Linux: the data disk as a whole-disk block device
// carrying the volume manager's GPT, mounts from mountinfo, btrfs as the
// Marl file system, partition UUIDs through libblkid.
#pragma once

#include <map>
#include <string>

#include "platform/VolumeLayer.h"
#include "platform/linux/LinuxDiskDevice.h"

namespace platform {

class LinuxVolumeLayer : public VolumeLayer {
 public:
  // devicePaths maps the names the core uses ("/dev/rdisk0s1") to the real
  // device; unmapped paths are used as they are.
  explicit LinuxVolumeLayer(std::map<std::string, std::string> devicePaths = {},
                            std::string mountInfoPath = "/proc/self/mountinfo");

  Result<std::unique_ptr<DiskDevice>> openDisk(const std::string& path, int flags) override;
  Result<std::vector<MountRecord>> mountRecords(std::size_t maxRecords) override;
  Status resizeFileSystem(const std::string& mountPoint, std::uint64_t newSize) override;
  void sync() override;
  Result<std::optional<std::string>> partitionUUID(const std::string& devicePath) override;

  // Maps the disk's partitions in the kernel as its table lists them (for
  // kernels without a partition-table parser, as `partx -a` does), after
  // finishing any partition move its record shows cut short.
  Status mapPartitions(const std::string& path);

  // Tests wrap the disk access of the layer's own copying and record keeping.
  void wrapBlockIo(BlockIoWrapper wrapper) { wrapper_ = std::move(wrapper); }

 private:
  std::string resolve(const std::string& path) const;

  std::map<std::string, std::string> devicePaths_;
  std::string mountInfoPath_;
  BlockIoWrapper wrapper_;
};

}  // namespace platform
