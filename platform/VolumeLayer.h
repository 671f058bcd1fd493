// The data disk and its file systems: the raw disk device the volume manager
// presents its partition table on, the mounted file systems, and the online
// file-system resize.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Result.h"

namespace platform {

// One mounted file system, as the mount-table scan reports it.
struct MountRecord {
  std::string typeName;     // "marl" for the resizable data file system
  std::string mountedOn;    // mount point
  std::string mountedFrom;  // device path
};

// An open disk device; closed when destroyed.
class DiskDevice {
 public:
  virtual ~DiskDevice() = default;
  // Whether this is the raw whole-disk node the partition table is edited
  // through (an error when the device cannot be examined).
  virtual Result<bool> isRawDisk() = 0;
  virtual Result<std::uint32_t> blockSize() = 0;
  virtual Result<std::uint64_t> blockCount() = 0;
  // The byte count transferred; fewer than asked at the end of the device.
  virtual Result<std::size_t> pread(std::span<std::uint8_t> buffer, std::uint64_t offset) = 0;
  virtual Result<std::size_t> pwrite(std::span<const std::uint8_t> bytes, std::uint64_t offset) = 0;
};

class VolumeLayer {
 public:
  // Open flags, numbered as the disk driver's callers know them.
  static constexpr int kReadOnly = 0x0000;
  static constexpr int kReadWrite = 0x0002;
  static constexpr int kSharedLock = 0x0010;

  virtual ~VolumeLayer() = default;

  virtual Result<std::unique_ptr<DiskDevice>> openDisk(const std::string& path, int flags) = 0;
  // The first maxRecords device-backed mounts, in mount order.
  virtual Result<std::vector<MountRecord>> mountRecords(std::size_t maxRecords) = 0;
  // Grows or shrinks the mounted file system to newSize bytes, online.
  virtual Status resizeFileSystem(const std::string& mountPoint, std::uint64_t newSize) = 0;
  // Flushes every file system.
  virtual void sync() = 0;
  // The partition UUID (text) of the block device at a path: an error when
  // there is no such device, no value when it carries no partition UUID.
  virtual Result<std::optional<std::string>> partitionUUID(const std::string& devicePath) = 0;
};

}  // namespace platform
