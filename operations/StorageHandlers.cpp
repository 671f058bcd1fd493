// The data partition requests: the parameter is only logged.
#include "logging/QLXHLog.h"
#include "storage/DataPartition.h"
#include "storage/StorageServices.h"
#include "vexd_helper/QLXHMessageResponder.h"

bool QLXHMessageResponder::shrinkDataPartition(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder shrinkDataPartition:]",
          parameter);
  return shrink_data_partition(storage::sharedStorageServices()) == 0;
}

bool QLXHMessageResponder::expandDataPartition(const platform::Value& parameter) {
  QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder expandDataPartition:]",
          parameter);
  return expand_data_partition(storage::sharedStorageServices()) == 0;
}
