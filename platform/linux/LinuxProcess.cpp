#include "platform/linux/LinuxProcess.h"

#include <sys/reboot.h>
#include <unistd.h>

#include <cstdio>

namespace platform {

void LinuxProcess::exit(int status) {
  std::fflush(nullptr);
  ::_exit(status);
}

void LinuxProcess::sync() { ::sync(); }

bool LinuxProcess::reboot() {
  // What is in the page cache would otherwise be lost with the restart.
  ::sync();
  ::reboot(RB_AUTOBOOT);
  return false;
}

}  // namespace platform
