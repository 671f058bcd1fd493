#include "platform/linux/LinuxProcess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/testing/Commands.h"
#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

int waitFor(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

TEST(LinuxProcessTest, ExitFlushesBufferedOutputButRunsNoExitHandlers) {
  testing::TempDirectory dir;
  std::string out = dir / "out";
  static std::string marker;
  marker = dir / "atexit-ran";
  pid_t pid = ::fork();
  if (pid == 0) {
    std::FILE* f = std::fopen(out.c_str(), "w");
    std::setvbuf(f, nullptr, _IOFBF, 1 << 16);
    std::fputs("buffered line\n", f);
    std::atexit([] { std::fclose(std::fopen(marker.c_str(), "w")); });
    LinuxProcess().exit(3);
  }
  int status = waitFor(pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
  EXPECT_EQ(testing::contentsOf(out), "buffered line\n");
  EXPECT_NE(::access(marker.c_str(), F_OK), 0);
}

// The real restart, called only by the first process of a fresh PID
// namespace, where it ends that namespace and nothing else.
TEST(LinuxProcessTest, RebootInsideAPrivatePidNamespaceEndsOnlyThatNamespace) {
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  pid_t helper = ::fork();
  if (helper == 0) {
    ::close(pipeFds[0]);
    if (::unshare(CLONE_NEWPID) != 0) ::_exit(77);
    pid_t init = ::fork();
    if (init == 0) {
      // Anything but pid 1 here means no new namespace: never restart then.
      if (::getpid() != 1) ::_exit(78);
      (void)::write(pipeFds[1], "r", 1);
      LinuxProcess().reboot();
      ::_exit(79);
    }
    int status = waitFor(init);
    ::_exit(WIFSIGNALED(status) ? 100 + WTERMSIG(status) : WEXITSTATUS(status));
  }
  ::close(pipeFds[1]);
  char c = 0;
  bool reached = ::read(pipeFds[0], &c, 1) == 1;
  ::close(pipeFds[0]);
  int status = waitFor(helper);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no PID namespaces here";
  EXPECT_TRUE(reached);
  // The namespace's first process ends as if hung up: the restart signal.
  EXPECT_EQ(WEXITSTATUS(status), 100 + SIGHUP);
}

}  // namespace
}  // namespace platform
