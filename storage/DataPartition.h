// The two storage requests' entry points.
#pragma once

#include <cstdint>

#include "storage/StorageServices.h"

// Shrinks the data partition to its used space plus half its free space, as
// the device property service reports them. Returns 0 or -1.
std::int32_t shrink_data_partition(const storage::StorageServices& services);

// Expands the data partition to every block the other partitions leave.
// Returns the driver's result: 0 or 1.
int expand_data_partition(const storage::StorageServices& services);
