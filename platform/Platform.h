// The bundle of platform services a process runs on. main fills it with the
// Linux implementations; tests fill it with what they need.
#pragma once

namespace platform {

class Clock;
class DeviceProperties;
class DigestService;
class FileSystem;
class Gatecards;
class HardwareRegistry;
class Process;
class TrustService;
class VolumeLayer;

struct Platform {
  Clock* clock = nullptr;
  FileSystem* fileSystem = nullptr;
  Process* process = nullptr;
  DeviceProperties* deviceProperties = nullptr;
  Gatecards* gatecards = nullptr;              // client credentials
  HardwareRegistry* hardwareRegistry = nullptr;  // firmware variables, partition UUIDs
  TrustService* trust = nullptr;               // X.509 chains, RSA verification
  VolumeLayer* volumes = nullptr;              // the data disk, mounts, file-system resize
  DigestService* digests = nullptr;            // SHA-1 for file hashing
};

// The process-wide bundle the singletons are made with.
Platform& shared();

}  // namespace platform
