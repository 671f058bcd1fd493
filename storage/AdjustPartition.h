// The resize driver both storage requests end in.
#pragma once

#include <cstdint>

#include "storage/StorageServices.h"

// Gives the "Data" partition (or a new one, when there is none) newSize
// bytes rounded up to blocks, repacks the table, writes blocks 1 and 2 of
// the data device back and resizes its mounted Marl file system: before the
// table write when shrinking, after it when growing. Returns 0 on success
// (also when nothing had to change) and 1 on failure.
int adjust_partition(const storage::StorageServices& services, std::uint64_t newSize);
