// libFuzzer target: the resize driver on an in-memory disk that a corrupt or
// hostile device could present. The input is XORed onto a valid disk (so an
// all-zero input is that disk): the MBR, the GPT header, the entry table and
// the move record; the first bytes choose the request and what the disk
// usage answers.
//
// Input: flags (1 byte), available (8), capacity (8), then the XOR bytes.
// Flags: 1 shrink (else expand), 2 fix the header CRC, 4 fix the entry CRC,
// 8 mount the Data partition, 16 finish a recorded move first, 32 answer
// the disk usage as doubles.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/DeviceProperties.h"
#include "platform/GptDisk.h"
#include "platform/testing/MemoryVolumeLayer.h"
#include "storage/DataPartition.h"
#include "storage/GPTRecord.h"
#include "storage/MarlVolume.h"
#include "storage/PartitionTable.h"
#include "storage/StorageServices.h"

namespace {

namespace gpt = platform::gpt;

constexpr std::uint64_t kBlocks = 256;
constexpr std::size_t kBlock = gpt::kBlockSize;

class Usage : public platform::DeviceProperties {
 public:
  std::optional<platform::Value> copyAnswer(const std::string& question) override {
    return question == "DiskUsage" ? answer : std::nullopt;
  }
  std::optional<platform::Value> answer;
};

// The regions of the disk the input reaches: offset and length.
struct Region {
  std::size_t offset;
  std::size_t length;
};
constexpr Region kRegions[] = {
    {0, 512},                                  // protective MBR and signature word
    {kBlock, gpt::kHeaderSize},                // GPT header
    {2 * kBlock, gpt::kEntryTableSize},        // entry table
    {gpt::kMoveRecordLba * kBlock, 256},       // move record, first slot
    {(gpt::kMoveRecordLba + 1) * kBlock, 256}  // second slot
};

platform::Data* baseDisk = nullptr;
// One layer for the whole run, reset for each input: a fresh megabyte per
// input would cost more than the driver itself.
platform::testing::MemoryVolumeLayer* layer = nullptr;

std::int64_t load(const std::uint8_t* p) {
  std::int64_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gpt::DiskLayout layout;
  layout.blockCount = kBlocks;
  layout.partitions = {{"System", 40}, {"Data", 0}, {"Update", 40}};
  auto image = gpt::buildDisk(layout);
  if (!image) std::abort();
  baseDisk = new platform::Data(kBlocks * kBlock, 0);
  for (const auto& w : image->writes)
    std::copy(w.bytes.begin(), w.bytes.end(), baseDisk->begin() + w.offset);
  layer = new platform::testing::MemoryVolumeLayer(kBlocks);
  // Small copy steps, so that moves take several records.
  layer->copyLimits.chunkBytes = 16 * kBlock;
  layer->copyLimits.stepBytes = 32 * kBlock;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 17) return 0;
  const std::uint8_t flags = data[0];
  const std::int64_t available = load(data + 1);
  const std::int64_t capacity = load(data + 9);
  data += 17;
  size -= 17;

  platform::testing::MemoryVolumeLayer& volumes = *layer;
  std::copy(baseDisk->begin(), baseDisk->end(), volumes.disk.begin());
  volumes.mounts.clear();
  volumes.partitionUUIDs.clear();
  volumes.events.clear();
  volumes.writes.clear();
  for (const Region& r : kRegions) {
    for (std::size_t i = 0; i < r.length && size > 0; ++i, ++data, --size)
      volumes.disk[r.offset + i] ^= *data;
  }
  std::uint8_t* header = volumes.disk.data() + kBlock;
  if (flags & 4) {
    std::uint32_t count =
        std::min<std::uint32_t>(gpt::load32(header + gpt::kEntryCount), gpt::kMaxEntries);
    gpt::store32(header + gpt::kEntryArrayCrc,
                 gpt::crc32({volumes.disk.data() + 2 * kBlock, count * gpt::kEntrySize}));
  }
  if (flags & 2) {
    gpt::store32(header + gpt::kHeaderCrc, 0);
    gpt::store32(header + gpt::kHeaderCrc, gpt::crc32({header, gpt::kHeaderSize}));
  }
  if (flags & 8) {
    std::array<std::uint8_t, 16> guid;
    std::copy_n(volumes.disk.begin() + 2 * kBlock + gpt::kEntrySize + gpt::kUniqueGuid, 16,
                guid.begin());
    volumes.mounts.push_back({"marl", "/private/var", "/dev/disk0s2"});
    volumes.partitionUUIDs["/dev/disk0s2"] =
        storage::uuidText(storage::uuidFromGPTOrder(std::span<const std::uint8_t, 16>(guid)));
  }
  if (flags & 16) (void)volumes.mapPartitions();

  Usage usage;
  if (flags & 32) {
    usage.answer = platform::Dictionary{{"TotalDataAvailable", static_cast<double>(available)},
                                        {"TotalDataCapacity", static_cast<double>(capacity)}};
  } else {
    usage.answer =
        platform::Dictionary{{"TotalDataAvailable", available}, {"TotalDataCapacity", capacity}};
  }
  storage::StorageServices services;
  services.volumes = &volumes;
  services.deviceProperties = &usage;
  services.uuidForBSDName = storage::volumeLayerUUIDLookup(&volumes);
  // The table keeps indexes found for the life of the process; each input
  // starts as the process does.
  for (auto& row : partition_name_table) row.index = -1;

  if (flags & 1)
    (void)shrink_data_partition(services);
  else
    (void)expand_data_partition(services);
  return 0;
}
