// Ending this process and restarting the machine.
#pragma once

#include "platform/Process.h"

namespace platform {

class LinuxProcess : public Process {
 public:
  [[noreturn]] void exit(int status) override;
  void sync() override;
  // Inside a PID namespace other than the first, the restart ends that
  // namespace instead of the machine.
  bool reboot() override;
};

}  // namespace platform
