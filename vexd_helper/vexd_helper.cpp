// The service's entry: the one place where the Linux platform is wired in.
#include <future>

#include "logging/QLXHLog.h"
#include "logging/QLXLogModel.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxFileSystem.h"
#include "vexd_helper/QLXHService.h"

namespace {

void installLinuxPlatform() {
  // Made once and never destroyed: the process ends with _exit.
  auto* clock = new platform::LinuxClock();
  auto* fileSystem = new platform::LinuxFileSystem();
  platform::Platform& p = platform::shared();
  p.clock = clock;
  p.fileSystem = fileSystem;
}

}  // namespace

int main(int argc, char** argv) {
  (void)argc;
  installLinuxPlatform();
  QLXHLog("%s started", argv[0]);
  (void)QLXLogModel::sharedInstance().enableLogToFilesUnder("/private/var/logs/vexd",
                                                            "vexd_helper", 5);
  QLXH_start_listener();
  // The main thread only keeps the process alive; Ovix delivers every event
  // on its own queues.
  std::promise<void> never;
  never.get_future().wait();
  return 0;
}
