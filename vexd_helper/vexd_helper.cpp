// The service's entry: the one place where the Linux platform is wired in.
#include <future>

#include "logging/QLXHLog.h"
#include "logging/QLXLogModel.h"
#include "manifest/QLXProgressUpdater.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxDeviceProperties.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LinuxGatecards.h"
#include "platform/linux/LinuxHardwareRegistry.h"
#include "platform/linux/LinuxProcess.h"
#include "platform/linux/LinuxTrustService.h"
#include "platform/linux/LinuxVolumeLayer.h"
#include "platform/linux/OpenSslDigestService.h"
#include "vexd_helper/QLXHMessageResponder.h"
#include "vexd_helper/QLXHService.h"

namespace {

void installLinuxPlatform() {
  // Made once and never destroyed: the process ends with _exit.
  platform::Platform& p = platform::shared();
  p.clock = new platform::LinuxClock();
  p.fileSystem = new platform::LinuxFileSystem();
  p.process = new platform::LinuxProcess();
  p.gatecards = new platform::LinuxGatecards();
  p.hardwareRegistry = new platform::LinuxHardwareRegistry();
  p.volumes = new platform::LinuxVolumeLayer();
  p.deviceProperties = new platform::LinuxDeviceProperties();
  p.trust = new platform::LinuxTrustService();
  p.digests = new platform::OpenSslDigestService();
  QLXProgressUpdater::sharedInstance().setSender(
      [](std::int64_t percent) { QLXHMessageResponder::sharedInstance().sendProgress(percent); });
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
