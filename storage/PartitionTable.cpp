#include "storage/PartitionTable.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "logging/QLXHLog.h"
#include "platform/VolumeLayer.h"

PartitionNameRow partition_name_table[3] = {{"System", -1}, {"Data", -1}, {"Update", -1}};

namespace {

// UTF-8 to UTF-16LE, at most 36 code units, into a zero-filled name field;
// no value for malformed UTF-8.
std::optional<std::array<std::uint8_t, platform::gpt::kNameSize>> unicodeName(
    std::string_view utf8) {
  std::array<std::uint8_t, platform::gpt::kNameSize> field{};
  std::size_t units = 0;
  auto put = [&](std::uint32_t unit) {
    if (units >= field.size() / 2) return;
    field[2 * units] = static_cast<std::uint8_t>(unit);
    field[2 * units + 1] = static_cast<std::uint8_t>(unit >> 8);
    ++units;
  };
  for (std::size_t i = 0; i < utf8.size();) {
    const auto lead = static_cast<std::uint8_t>(utf8[i]);
    std::size_t length = lead < 0x80         ? 1
                         : (lead >> 5) == 6  ? 2
                         : (lead >> 4) == 14 ? 3
                         : (lead >> 3) == 30 ? 4
                                             : 0;
    if (length == 0 || i + length > utf8.size()) return std::nullopt;
    std::uint32_t cp = length == 1 ? lead : lead & (0x7F >> length);
    for (std::size_t k = 1; k < length; ++k) {
      const auto c = static_cast<std::uint8_t>(utf8[i + k]);
      if ((c >> 6) != 2) return std::nullopt;
      cp = cp << 6 | (c & 0x3F);
    }
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return std::nullopt;
    if (cp >= 0x10000) {
      put(0xD800 + ((cp - 0x10000) >> 10));
      put(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      put(cp);
    }
    i += length;
  }
  return field;
}

}  // namespace

std::unique_ptr<platform::DiskDevice> open_disk_device(const storage::StorageServices& services,
                                                       int flags) {
  // A process without a volume layer has no data device to open.
  auto opened = services.volumes ? services.volumes->openDisk(kDataDiskPath, flags)
                                 : platform::Result<std::unique_ptr<platform::DiskDevice>>(
                                       platform::Error::posix(19, kDataDiskPath));
  if (!opened) {
    QLXHLog("failed to open %s", kDataDiskPath);
    return nullptr;
  }
  std::unique_ptr<platform::DiskDevice> device = std::move(*opened);
  auto raw = device->isRawDisk();
  if (!raw) {
    QLXHLog("failed to stat %s", kDataDiskPath);
    return nullptr;
  }
  if (!*raw) {
    QLXHLog("%s is not a suitable device (try /dev/rdisk*)", kDataDiskPath);
    return nullptr;
  }
  return device;
}

int read_partition_table(const storage::StorageServices& services, GPTHeaderRecord* gpt,
                         BrovMediaGeometry* geometry) {
  auto device = open_disk_device(services, platform::VolumeLayer::kReadOnly);
  if (!device) return 0;
  auto blockSize = device->blockSize();
  if (!blockSize) {
    QLXHLog("ioctl DKIOCGETBLOCKSIZE failed");
    return 0;
  }
  auto blockCount = device->blockCount();
  if (!blockCount) {
    QLXHLog("ioctl DKIOCGETBLOCKCOUNT failed");
    return 0;
  }
  const std::uint32_t bs = *blockSize;
  const std::uint64_t mediaSize = std::uint64_t(bs) * *blockCount;
  if (brovInitMediaGeometry(geometry, mediaSize, bs) != 0) {
    QLXHLog("Device %s not suitable", kDataDiskPath);
    return 0;
  }
  geometry->mediaSize = mediaSize;
  geometry->blockSize = bs;

  platform::Data buffer(2 * std::size_t(bs), 0);
  auto got = device->pread({buffer.data(), bs}, 0);
  if (!got || *got < bs) {
    QLXHLog("Failed to read MBR from %s", kDataDiskPath);
    return 0;
  }
  if (platform::gpt::load32(&buffer[platform::gpt::kSignatureOffset]) !=
      platform::gpt::kBrovSignature) {
    QLXHLog("%s not managed by Brov", kDataDiskPath);
    return 0;
  }
  got = device->pread(buffer, bs);
  if (!got || *got < buffer.size()) {
    QLXHLog("Failed to read GPT header and table from %s", kDataDiskPath);
    return 0;
  }
  std::copy_n(buffer.begin(), gpt->header.bytes.size(), gpt->header.bytes.begin());
  for (std::size_t i = 0; i < gpt->entries.size(); ++i) {
    std::copy_n(buffer.begin() + bs + i * platform::gpt::kEntrySize, platform::gpt::kEntrySize,
                gpt->entries[i].bytes.begin());
  }

  const std::int32_t count = gpt->header.entryCount();
  if (count < 1) return 1;
  // Only eight entries are held; a larger count would index past them.
  if (count > static_cast<std::int32_t>(gpt->entries.size())) {
    QLXHLog("GPT on %s lists %d partitions, more than the %d it can hold", kDataDiskPath, count,
            static_cast<int>(gpt->entries.size()));
    return 0;
  }
  for (std::int32_t i = 0; i < count; ++i) {
    for (auto& row : partition_name_table) {
      auto name = unicodeName(row.name);
      if (!name) {
        QLXHLog("Could not get unicode name for partition %s", row.name);
        return 0;
      }
      if (std::equal(name->begin(), name->end(), gpt->entries[i].name().begin())) {
        row.index = i;
        break;
      }
    }
  }
  return 1;
}
