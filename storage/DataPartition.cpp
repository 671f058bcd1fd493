#include "storage/DataPartition.h"

#include <optional>

#include "logging/QLXHLog.h"
#include "platform/DeviceProperties.h"
#include "storage/AdjustPartition.h"
#include "storage/PartitionTable.h"

namespace {

constexpr const char* kDiskUsage = "DiskUsage";
constexpr const char* kAvailableKey = "TotalDataAvailable";
constexpr const char* kCapacityKey = "TotalDataCapacity";

std::optional<std::int64_t> number(const platform::Value& answer, const char* key) {
  const platform::Dictionary* usage = answer.dictionary();
  const platform::Value* value = usage ? usage->find(key) : nullptr;
  if (value == nullptr || !value->isNumber()) return std::nullopt;
  return value->int64Value();
}

}  // namespace

std::int32_t shrink_data_partition(const storage::StorageServices& services) {
  std::optional<platform::Value> answer;
  if (services.deviceProperties) answer = services.deviceProperties->copyAnswer(kDiskUsage);
  if (!answer) {
    QLXHLog("Cannot get disk usage.");
    return -1;
  }
  const auto available = number(*answer, kAvailableKey);
  const auto capacity = number(*answer, kCapacityKey);
  // Without both numbers there is no size to aim for; failing is the safe answer.
  if (!available || !capacity) {
    QLXHLog("Disk usage lacks %s or %s.", kAvailableKey, kCapacityKey);
    return -1;
  }
  const std::int64_t freeSize = *available;
  const std::int64_t totalSize = *capacity;
  // Wrapping arithmetic: odd answers must not overflow a signed value.
  const auto newSize = static_cast<std::int64_t>(static_cast<std::uint64_t>(totalSize) -
                                                 static_cast<std::uint64_t>(freeSize / 2));
  QLXHLog("freeSize = %lld(bytes), totalSize = %lld(bytes), newSize = %lld(bytes)\n\n", freeSize,
          totalSize, newSize);
  return adjust_partition(services, static_cast<std::uint64_t>(newSize)) == 0 ? 0 : -1;
}

int expand_data_partition(const storage::StorageServices& services) {
  GPTHeaderRecord gpt;
  BrovMediaGeometry geometry;
  std::uint64_t newSize = 0;
  if (read_partition_table(services, &gpt, &geometry) == 1) {
    const auto first = static_cast<std::int64_t>(gpt.header.firstUsableLBA());
    const auto last = static_cast<std::int64_t>(gpt.header.lastUsableLBA());
    QLXHLog("gpt.pth.first_lba = %lld, last_lba = %lld", first, last);
    // Unsigned, so a hostile header wraps instead of overflowing.
    std::uint64_t available = gpt.header.lastUsableLBA() - gpt.header.firstUsableLBA() + 1;
    for (std::int32_t i = 0; i < gpt.header.entryCount(); ++i) {
      const auto& entry = gpt.entries[i];
      const std::uint64_t blocks = entry.blockCount();
      QLXHLog("Partition %d: first = %lld, last = %lld, lbaNumber = %lld", i,
              static_cast<std::int64_t>(entry.firstLBA()),
              static_cast<std::int64_t>(entry.lastLBA()), static_cast<std::int64_t>(blocks));
      // Index 1 is the data partition here by position, whatever its name.
      if (i != 1) available -= blocks;
    }
    QLXHLog("Block numbers that could be used as data partition = %lld",
            static_cast<std::int64_t>(available));
    newSize = available * geometry.blockSize;
  }
  QLXHLog("newSize = %lld(bytes)", static_cast<std::int64_t>(newSize));
  return adjust_partition(services, newSize);
}
