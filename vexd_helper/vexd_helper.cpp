// The service's entry: the one place where the Linux platform is wired in.
#include <cstdio>
#include <future>
#include <string_view>

#include "logging/ConsoleSink.h"
#include "logging/QLXHLog.h"
#include "logging/QLXLogModel.h"
#include "manifest/QLXProgressUpdater.h"
#include "ovix/Connection.h"
#include "platform/Platform.h"
#include "platform/linux/JournalConsole.h"
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
#include "vexd_helper/QLXHServedMessage.h"
#include "vexd_helper/QLXHService.h"
#include "vexd_version.h"

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

// Under systemd, console lines become journal entries that say which request
// of which client they belong to.
void logToJournalWhenThere() {
  if (!platform::JournalConsole::standardErrorIsJournal()) return;
  auto journal = std::make_shared<platform::JournalConsole>([] {
    platform::JournalContext context;
    QLXHServedMessage::Snapshot served = QLXHServedMessage::current();
    if (!served.serving) return context;
    context.request = served.request;
    if (auto connection = QLXHMessageResponder::sharedInstance().connection()) {
      context.client = connection->auditToken();
    }
    return context;
  });
  logging::setProcessConsoleSink([journal](const std::string& message) { journal->send(message); });
}

}  // namespace

int main(int argc, char** argv) {
  // The service has no options; these two only answer and end.
  if (argc == 2 && (std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h")) {
    std::puts(
        "usage: vexd_helper\n\nThe demo daemon's privileged helper; started by systemd "
        "(vexd_helper.socket).\nSee vexd_helper(8).");
    return 0;
  }
  if (argc == 2 && std::string_view(argv[1]) == "--version") {
    std::printf("vexd_helper %s\n", VEXD_VERSION);
    return 0;
  }
  installLinuxPlatform();
  logToJournalWhenThere();
  QLXHLog("%s started", argv[0]);
  (void)QLXLogModel::sharedInstance().enableLogToFilesUnder("/private/var/logs/vexd", "vexd_helper",
                                                            5);
  QLXH_start_listener();
  // The main thread only keeps the process alive; Ovix delivers every event
  // on its own queues.
  std::promise<void> never;
  never.get_future().wait();
  return 0;
}
