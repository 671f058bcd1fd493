// A data disk held in memory that presents itself as the raw disk device,
// with scripted mounts, partition UUIDs and injectable failures. Records
// every write, resize and sync in order so tests can check the sequence.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/Value.h"
#include "platform/VolumeLayer.h"

namespace platform::testing {

class MemoryVolumeLayer : public VolumeLayer {
 public:
  MemoryVolumeLayer(std::uint64_t blockCount, std::uint32_t blockSize = 4096);

  // The disk's bytes, readable and writable by the test.
  Data disk;
  std::uint32_t diskBlockSize;

  // Failures to inject (0: none).
  bool openFails = false;
  bool writeOpenFails = false;
  std::optional<bool> rawDisk = true;  // no value: the device cannot be examined
  bool blockSizeFails = false;
  bool blockCountFails = false;
  int writeErrno = 0;                     // the table write fails with this errno
  std::optional<std::size_t> shortWrite;  // or transfers only this many bytes
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
