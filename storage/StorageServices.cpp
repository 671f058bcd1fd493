#include "storage/StorageServices.h"

#include "platform/Platform.h"
#include "platform/VolumeLayer.h"

namespace storage {

UUIDPropertyLookup volumeLayerUUIDLookup(platform::VolumeLayer* volumes) {
  return [volumes](const std::string& bsdName) {
    UUIDProperty property;
    if (volumes == nullptr) return property;
    auto uuid = volumes->partitionUUID("/dev/" + bsdName);
    if (!uuid) return property;
    property.ownerFound = true;
    if (uuid->has_value()) property.uuid = platform::Value(**uuid);
    return property;
  };
}

StorageServices sharedStorageServices() {
  platform::Platform& p = platform::shared();
  StorageServices s;
  s.volumes = p.volumes;
  s.deviceProperties = p.deviceProperties;
  s.uuidForBSDName = volumeLayerUUIDLookup(p.volumes);
  return s;
}

}  // namespace storage
