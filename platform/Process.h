// Ending the process and restarting the device.
#pragma once

namespace platform {

class Process {
 public:
  virtual ~Process() = default;
  // Flushes standard streams, then ends the process without running static
  // destructors, so no queue thread races a dying singleton.
  [[noreturn]] virtual void exit(int status) = 0;
  // Flushes every file system to disk.
  virtual void sync() = 0;
  // Restarts the device; returns only when the restart call fails.
  virtual bool reboot() = 0;
};

}  // namespace platform
