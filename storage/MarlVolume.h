// The Marl file system on a partition: finding where it is mounted by the
// partition's unique GUID, and resizing it online.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "storage/StorageServices.h"

namespace storage {

using UUIDBytes = std::array<std::uint8_t, 16>;

// GPT stores the first three UUID fields little-endian.
UUIDBytes uuidFromGPTOrder(std::span<const std::uint8_t, 16> guid);
// "XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", upper case.
std::string uuidText(const UUIDBytes& uuid);
// The 36-character text form, either case; no value when malformed.
std::optional<UUIDBytes> parseUUID(const std::string& text);

// Scans the mounted file systems for the Marl volume whose device carries
// partitionUUID and answers its mount point, logging each step.
std::optional<std::string> findMarlMountPoint(const StorageServices& services,
                                              const UUIDBytes& partitionUUID);

}  // namespace storage

// Resizes the Marl file system mounted on mountPoint to newSize bytes.
// Returns 0 on success and 1 on failure.
int resize_marl_volume(const storage::StorageServices& services, const std::string& mountPoint,
                       std::uint64_t newSize);
