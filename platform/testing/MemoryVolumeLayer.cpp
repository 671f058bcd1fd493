#include "platform/testing/MemoryVolumeLayer.h"

#include <algorithm>

#include "platform/TableCommit.h"

namespace platform::testing {
namespace {

class MemoryDisk : public DiskDevice {
 public:
  MemoryDisk(MemoryVolumeLayer& layer) : layer_(layer) {}

  Result<bool> isRawDisk() override {
    if (!layer_.rawDisk) return Error::posix(5, "fstat");
    return *layer_.rawDisk;
  }
  Result<std::uint32_t> blockSize() override {
    if (layer_.blockSizeFails) return Error::posix(25, "block size");
    return layer_.diskBlockSize;
  }
  Result<std::uint64_t> blockCount() override {
    if (layer_.blockCountFails) return Error::posix(25, "block count");
    return layer_.disk.size() / layer_.diskBlockSize;
  }
  Result<std::size_t> pread(std::span<std::uint8_t> buffer, std::uint64_t offset) override {
    if (offset >= layer_.disk.size()) return std::size_t(0);
    std::size_t n = std::min<std::uint64_t>(buffer.size(), layer_.disk.size() - offset);
    std::copy_n(layer_.disk.begin() + offset, n, buffer.begin());
    return n;
  }
  Result<std::size_t> pwrite(std::span<const std::uint8_t> bytes, std::uint64_t offset) override {
    layer_.events.push_back("write " + std::to_string(offset) + " " + std::to_string(bytes.size()));
    if (layer_.writeErrno) return Error::posix(layer_.writeErrno, "pwrite");
    if (layer_.shortWrite) return std::min(*layer_.shortWrite, bytes.size());
    if (offset >= layer_.disk.size()) return std::size_t(0);
    const std::size_t n = std::min<std::uint64_t>(bytes.size(), layer_.disk.size() - offset);
    const std::uint64_t block = layer_.diskBlockSize;
    if (offset < 3 * block && offset + n > block) {
      TableCommit commit(*layer_.blockIo, nullptr, layer_.diskBlockSize, layer_.disk.size() / block,
                         layer_.copyLimits);
      if (auto s = commit.write(bytes.first(n), offset); !s) return s.error();
    } else {
      std::copy_n(bytes.begin(), n, layer_.disk.begin() + offset);
    }
    layer_.writes.emplace_back(offset, Data(bytes.begin(), bytes.begin() + n));
    return n;
  }

 private:
  MemoryVolumeLayer& layer_;
};

}  // namespace

MemoryVolumeLayer::MemoryVolumeLayer(std::uint64_t blockCount, std::uint32_t blockSize)
    : disk(blockCount * blockSize, 0), diskBlockSize(blockSize) {}

Result<std::unique_ptr<DiskDevice>> MemoryVolumeLayer::openDisk(const std::string& path,
                                                                int flags) {
  events.push_back("open " + std::to_string(flags));
  openedPath = path;
  if (openFails || (writeOpenFails && flags != kReadOnly)) return Error::posix(2, path);
  return std::unique_ptr<DiskDevice>(new MemoryDisk(*this));
}

Result<std::vector<MountRecord>> MemoryVolumeLayer::mountRecords(std::size_t maxRecords) {
  if (mountScanFails) return Error::posix(5, "mounts");
  std::vector<MountRecord> first(mounts.begin(),
                                 mounts.begin() + std::min(maxRecords, mounts.size()));
  return first;
}

Status MemoryVolumeLayer::resizeFileSystem(const std::string& mountPoint, std::uint64_t newSize) {
  events.push_back("resize " + mountPoint + " " + std::to_string(newSize));
  if (resizeErrno) return Error::posix(resizeErrno, mountPoint);
  return Status::success();
}

Status MemoryVolumeLayer::mapPartitions() {
  TableCommit commit(*blockIo, nullptr, diskBlockSize, disk.size() / diskBlockSize, copyLimits);
  return commit.map();
}

void MemoryVolumeLayer::sync() { events.push_back("sync"); }

Result<std::optional<std::string>> MemoryVolumeLayer::partitionUUID(const std::string& devicePath) {
  auto it = partitionUUIDs.find(devicePath);
  if (it == partitionUUIDs.end()) return Error::posix(2, devicePath);
  return it->second;
}

}  // namespace platform::testing
