// What the resize driver reaches the device through: the volume layer, the
// device property service and the hardware registry's UUID lookup.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/Value.h"

namespace platform {
class DeviceProperties;
class VolumeLayer;
}  // namespace platform

namespace storage {

// What the hardware registry knows of the device owning a BSD device name.
struct UUIDProperty {
  bool ownerFound = false;
  std::optional<platform::Value> uuid;  // the "UUID" property as stored
};

using UUIDPropertyLookup = std::function<UUIDProperty(const std::string& bsdName)>;

struct StorageServices {
  platform::VolumeLayer* volumes = nullptr;
  platform::DeviceProperties* deviceProperties = nullptr;
  UUIDPropertyLookup uuidForBSDName;
};

// A lookup through the volume layer: the device "/dev/<name>" and its
// partition UUID. Stands in until the hardware registry answers it.
UUIDPropertyLookup volumeLayerUUIDLookup(platform::VolumeLayer* volumes);

// The services of the process-wide platform bundle as it is now.
StorageServices sharedStorageServices();

}  // namespace storage
