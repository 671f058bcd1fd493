#include "storage/MarlVolume.h"

#include "logging/QLXHLog.h"
#include "platform/VolumeLayer.h"

namespace storage {
namespace {

constexpr std::size_t kMaxMountRecords = 8;
constexpr std::size_t kUUIDTextLength = 36;

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isDash(std::size_t position) {
  return position == 8 || position == 13 || position == 18 || position == 23;
}

std::string lastComponent(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

UUIDBytes uuidFromGPTOrder(std::span<const std::uint8_t, 16> guid) {
  UUIDBytes u{};
  for (int i = 0; i < 4; ++i) u[i] = guid[3 - i];
  u[4] = guid[5];
  u[5] = guid[4];
  u[6] = guid[7];
  u[7] = guid[6];
  for (int i = 8; i < 16; ++i) u[i] = guid[i];
  return u;
}

std::string uuidText(const UUIDBytes& uuid) {
  static const char digits[] = "0123456789ABCDEF";
  std::string text;
  for (std::size_t i = 0; i < uuid.size(); ++i) {
    if (isDash(text.size())) text += '-';
    text += digits[uuid[i] >> 4];
    text += digits[uuid[i] & 0xF];
  }
  return text;
}

std::optional<UUIDBytes> parseUUID(const std::string& text) {
  if (text.size() != kUUIDTextLength) return std::nullopt;
  UUIDBytes u{};
  std::size_t byte = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (isDash(i)) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    const int high = hexValue(text[i]);
    const int low = hexValue(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    u[byte++] = static_cast<std::uint8_t>(high << 4 | low);
    i += 2;
  }
  return u;
}

std::optional<std::string> findMarlMountPoint(const StorageServices& services,
                                              const UUIDBytes& partitionUUID) {
  std::vector<platform::MountRecord> records;
  int count = -1;
  if (auto scanned = services.volumes->mountRecords(kMaxMountRecords)) {
    records = std::move(*scanned);
    count = static_cast<int>(records.size());
  } else {
    QLXHLog("failed to get filesystem information");
  }
  QLXHLog("scanning %d filesystems for %s", count, uuidText(partitionUUID));
  for (const auto& record : records) {
    if (record.typeName != "marl") continue;
    const std::string bsdName = lastComponent(record.mountedFrom);
    UUIDProperty property;
    if (services.uuidForBSDName) property = services.uuidForBSDName(bsdName);
    if (!property.ownerFound) {
      QLXHLog("failed to find an Orbel owning %s (unexpected)", bsdName);
      continue;
    }
    if (!property.uuid) {
      QLXHLog("device matching %s has no UUID (unexpected)", bsdName);
      continue;
    }
    const std::string* text = property.uuid->string();
    if (text == nullptr || text->size() > kUUIDTextLength) {
      QLXHLog("failed to get string from UUID property (unexpected)");
      continue;
    }
    const auto parsed = parseUUID(*text);
    const bool match = parsed && *parsed == partitionUUID;
    QLXHLog("UUID %s %smatch", *text, match ? "" : "does not ");
    if (match) {
      QLXHLog("matched %s on %s", record.mountedFrom, record.mountedOn);
      return record.mountedOn;
    }
  }
  return std::nullopt;
}

}  // namespace storage

int resize_marl_volume(const storage::StorageServices& services, const std::string& mountPoint,
                       std::uint64_t newSize) {
  auto status = services.volumes->resizeFileSystem(mountPoint, newSize);
  if (!status) {
    QLXHLog("Marl resize failed. errno=%d", static_cast<int>(status.error().code));
    return 1;
  }
  return 0;
}
