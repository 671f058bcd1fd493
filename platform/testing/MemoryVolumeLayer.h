// A data disk held in memory that presents itself as the raw disk device,
// with scripted mounts, partition UUIDs and injectable failures. Records
// every write, resize and sync in order so tests can check the sequence.
// A write of the table blocks is carried out as on a device: moved
// partitions copied under a move record, then the table sealed.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/PartitionCopier.h"
#include "platform/Value.h"
#include "platform/VolumeLayer.h"
#include "platform/testing/MemoryBlockIo.h"

namespace platform::testing {

class MemoryVolumeLayer : public VolumeLayer {
 public:
  MemoryVolumeLayer(std::uint64_t blockCount, std::uint32_t blockSize = 4096);
  MemoryVolumeLayer(const MemoryVolumeLayer&) = delete;
  MemoryVolumeLayer& operator=(const MemoryVolumeLayer&) = delete;

  // The disk's bytes, readable and writable by the test.
  Data disk;
  std::uint32_t diskBlockSize;
  // What the layer's own copying, record keeping and sealing goes through;
  // a test may put a wrapper around diskIo here.
  MemoryBlockIo diskIo{disk};
  BlockIo* blockIo = &diskIo;
  CopyLimits copyLimits;

  // Finishes a table write cut short, as mapping a device does.
  Status mapPartitions();

  // Failures to inject (0: none).
  bool openFails = false;
  bool writeOpenFails = false;
  std::optional<bool> rawDisk = true;  // no value: the device cannot be examined
  bool blockSizeFails = false;
  bool blockCountFails = false;
  int writeErrno = 0;                     // the table write fails with this errno
  std::optional<std::size_t> shortWrite;  // or reports only this many bytes, writing none
  bool mountScanFails = false;
  int resizeErrno = 0;

  std::vector<MountRecord> mounts;
  std::map<std::string, std::optional<std::string>> partitionUUIDs;  // device path -> UUID

  // What happened, in order: "open <flags>", "write <offset> <length>",
  // "resize <mount point> <bytes>", "sync".
  std::vector<std::string> events;
  std::vector<std::pair<std::uint64_t, Data>> writes;

  Result<std::unique_ptr<DiskDevice>> openDisk(const std::string& path, int flags) override;
  Result<std::vector<MountRecord>> mountRecords(std::size_t maxRecords) override;
  Status resizeFileSystem(const std::string& mountPoint, std::uint64_t newSize) override;
  void sync() override;
  Result<std::optional<std::string>> partitionUUID(const std::string& devicePath) override;

  std::string openedPath;
};

}  // namespace platform::testing
