// The bundle of platform services a process runs on. main fills it with the
// Linux implementations; tests fill it with what they need.
#pragma once

namespace platform {

class Clock;
class FileSystem;

struct Platform {
  Clock* clock = nullptr;
  FileSystem* fileSystem = nullptr;
};

// The process-wide bundle the singletons are made with.
Platform& shared();

}  // namespace platform
