// The bundle of platform services a process runs on. main fills it with the
// Linux implementations; tests fill it with what they need. Each service is
// added here by the change that introduces it.
#pragma once

namespace platform {

class Clock;
class DeviceProperties;
class FileSystem;
class Process;

struct Platform {
  Clock* clock = nullptr;
  FileSystem* fileSystem = nullptr;
  Process* process = nullptr;
  DeviceProperties* deviceProperties = nullptr;
};

// The process-wide bundle the singletons are made with.
Platform& shared();

}  // namespace platform
