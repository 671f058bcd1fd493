// Reading the partition table the volume manager presents on the raw data
// device, and the process-wide table of where "System", "Data" and "Update"
// were last found.
#pragma once

#include <cstdint>
#include <memory>

#include "storage/BrovGeometry.h"
#include "storage/GPTRecord.h"
#include "storage/StorageServices.h"

namespace platform {
class DiskDevice;
}

inline constexpr const char* kDataDiskPath = "/dev/rdisk0s1";

struct PartitionNameRow {
  const char* name;
  std::int32_t index;  // GPT index last found for the name, -1 until then
};

// Rows "System", "Data", "Update". An index, once found, is kept for the
// life of the process even when a later read no longer finds the name.
extern PartitionNameRow partition_name_table[3];
inline constexpr int kDataRow = 1;

// Opens the raw data device with the volume layer's open flags; null (after
// logging why) when it cannot be opened or is not the raw disk.
std::unique_ptr<platform::DiskDevice> open_disk_device(const storage::StorageServices& services,
                                                       int flags);

// Fills the header record with blocks 1 and 2 of the data device and the
// geometry with its media and block size, and records the GPT index of each
// named partition. Returns 1 on success and 0 on failure.
int read_partition_table(const storage::StorageServices& services, GPTHeaderRecord* gpt,
                         BrovMediaGeometry* geometry);
