// The volume manager's edit of its in-memory partition table: one partition
// created, deleted or resized, then every partition packed again from the
// first usable block in the order of their starts.
#pragma once

#include <cstdint>

#include "storage/BrovGeometry.h"
#include "storage/GPTRecord.h"

// Gives partition `index` a size of newSize bytes (rounded up to blocks):
// index == entry count creates a partition, newSize 0 deletes one. The table
// and the header's entry count change in place. Returns 0, or -1 with a
// "brov: " line on standard error; after a failed fit the entries stay as
// rearranged, the count is unchanged, and the caller must not write them.
int brovAdjustPartition(const BrovMediaGeometry* geometry, GPTHeader* header, GPTEntryTable* table,
                        std::int32_t index, std::uint64_t newSize);
