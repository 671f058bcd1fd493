#include "storage/AdjustPartition.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include "logging/QLXHLog.h"
#include "platform/VolumeLayer.h"
#include "storage/BrovLayout.h"
#include "storage/MarlVolume.h"
#include "storage/PartitionTable.h"

namespace {

int failed(std::int32_t which, std::int32_t count) {
  QLXHLog("failed to %s partition %d", which == count ? "create" : "adjust", which);
  return 1;
}

// Blocks 1 and 2 as they go back to disk: header and entry table verbatim,
// CRC fields as read, zeros everywhere else.
platform::Data tableBlocks(const GPTHeaderRecord& gpt, std::uint32_t blockSize) {
  platform::Data buffer(2 * std::size_t(blockSize), 0);
  std::copy(gpt.header.bytes.begin(), gpt.header.bytes.end(), buffer.begin());
  auto out = buffer.begin() + blockSize;
  for (const auto& entry : gpt.entries)
    out = std::copy(entry.bytes.begin(), entry.bytes.end(), out);
  return buffer;
}

}  // namespace

int adjust_partition(const storage::StorageServices& services, std::uint64_t newSize) {
  QLXHLog("entering %s", "adjust_partition");
  GPTHeaderRecord gpt;
  BrovMediaGeometry geometry;
  if (read_partition_table(services, &gpt, &geometry) != 1) return 1;

  const std::uint64_t blockSize = geometry.blockSize;
  const std::uint64_t requiredBlocks = newSize / blockSize + (newSize % blockSize ? 1 : 0);
  const std::int32_t count = gpt.header.entryCount();
  const std::int32_t dataIndex = partition_name_table[kDataRow].index;
  const std::int32_t which = dataIndex == -1 ? count : dataIndex;
  QLXHLog("partition: requiredSize=%llu", requiredBlocks);

  if (count >= 0) {
    std::uint64_t total = 0;
    for (std::int32_t i = 0; i <= count; ++i) {
      if (i == which) {
        total += requiredBlocks;
      } else if (i < count) {
        total += gpt.entries[i].blockCount();
      }
    }
    if (total > gpt.header.lastUsableLBA() - gpt.header.firstUsableLBA() + 1) return 1;
  }
  if (requiredBlocks == 0) {
    // Always reports partition 1, whichever index was asked for.
    QLXHLog("deletion of partition %d disallowed", 1);
    return 1;
  }
  if (which < count && gpt.entries[which].blockCount() == requiredBlocks) {
    QLXHLog("no change in size");
    return 0;
  }
  if (static_cast<std::uint32_t>(which) > 7 ||
      static_cast<std::uint32_t>(count) < static_cast<std::uint32_t>(which)) {
    QLXHLog("bad partion number");
    return failed(which, count);
  }

  const auto uuid = storage::uuidFromGPTOrder(gpt.entries[which].uniqueGUID());
  const std::optional<std::string> mountPoint = storage::findMarlMountPoint(services, uuid);
  if (!mountPoint && which < count) {
    QLXHLog("filesystem must be mounted (mountPoint=%s,which=%d,nPartitions=%d,newSize=%llu)",
            static_cast<const char*>(nullptr), which, count, requiredBlocks);
    return failed(which, count);
  }

  const std::uint64_t newBytes = requiredBlocks * blockSize;
  const std::uint64_t currentBytes =
      which < count ? gpt.entries[which].blockCount() * blockSize : 0;
  if (mountPoint && newBytes < currentBytes) {
    if (newBytes == 0) {
      QLXHLog("can't delete partition %d, currently mounted on %s", which, *mountPoint);
      return failed(which, count);
    }
    QLXHLog("shrinking Marl filesystem on %s from %llu to %llu", *mountPoint, currentBytes,
            newBytes);
    if (resize_marl_volume(services, *mountPoint, newBytes) != 0) {
      QLXHLog("can't shrink partition %d, currently mounted on %s", which, *mountPoint);
      return failed(which, count);
    }
  }

  if (which == count) {
    QLXHLog("Creating new partition instead of adjusting existing one");
  } else {
    QLXHLog("Resizing existing partition with GPT index %d", which);
  }
  QLXHLog("About to adjust with settings partitionIndex:%d size:%llu MB", which, newBytes >> 20);
  if (brovAdjustPartition(&geometry, &gpt.header, &gpt.entries, which, newBytes) != 0) {
    QLXHLog("adjustment failed");
    return failed(which, count);
  }
  const bool growAfterWrite = mountPoint && newBytes >= currentBytes;

  auto device = services.volumes->openDisk(
      kDataDiskPath, platform::VolumeLayer::kReadWrite | platform::VolumeLayer::kSharedLock);
  if (!device) {
    QLXHLog("Failed to open %s to write new GPT header out to disk.\n", kDataDiskPath);
    return 1;
  }
  const platform::Data blocks = tableBlocks(gpt, geometry.blockSize);
  auto written = (*device)->pwrite(blocks, blockSize);
  if (!written || *written != blocks.size()) {
    const int err = written ? 0 : static_cast<int>(written.error().code);
    const int returned = written ? static_cast<int>(*written) : -1;
    QLXHLog("failed to write GPT header and table to %s (return %d). errno=%d : %s", kDataDiskPath,
            returned, err, std::strerror(err));
    return 1;
  }
  QLXHLog("Wrote GPT header back to disk");
  device->reset();
  services.volumes->sync();

  if (growAfterWrite) {
    QLXHLog("expanding Marl filesystem on %s to %llu", *mountPoint, newBytes);
    if (resize_marl_volume(services, *mountPoint, newBytes) != 0) {
      QLXHLog("can't expanding Marl filesystem on %s", *mountPoint);
      return 1;
    }
  }
  return 0;
}
