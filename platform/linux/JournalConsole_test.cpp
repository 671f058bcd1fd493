#include "platform/linux/JournalConsole.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "platform/linux/UniqueFd.h"

namespace platform {
namespace {

TEST(JournalConsole, UsesTheJournalOnlyWhenJournalStreamNamesStandardError) {
  struct stat st {};
  ASSERT_EQ(::fstat(STDERR_FILENO, &st), 0);
  const std::string mine = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
  ::setenv("JOURNAL_STREAM", mine.c_str(), 1);
  EXPECT_TRUE(JournalConsole::standardErrorIsJournal());
  // Inherited by a child whose standard error was redirected elsewhere.
  const std::string other = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino + 1);
  ::setenv("JOURNAL_STREAM", other.c_str(), 1);
  EXPECT_FALSE(JournalConsole::standardErrorIsJournal());
  ::setenv("JOURNAL_STREAM", "garbage", 1);
  EXPECT_FALSE(JournalConsole::standardErrorIsJournal());
  ::unsetenv("JOURNAL_STREAM");
  EXPECT_FALSE(JournalConsole::standardErrorIsJournal());
}

TEST(JournalConsole, FieldsNameTheRequestAndTheLiveClientsProgram) {
  EXPECT_TRUE(JournalConsole::fieldsFor({}).empty()) << "nothing in service, no fields";

  UniqueFd self(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
  ASSERT_TRUE(self.valid());
  AuditToken token{::getpid(), 1000, 1000, self.get()};
  const std::string exe = std::filesystem::read_symlink("/proc/self/exe");
  EXPECT_EQ(JournalConsole::fieldsFor({"writeNvram:", token}),
            (std::vector<std::string>{
                "VEXD_REQUEST=writeNvram:", "VEXD_CLIENT_PID=" + std::to_string(::getpid()),
                "VEXD_CLIENT_UID=1000", "VEXD_CLIENT_EXE=" + exe}));

  // A client that has exited: its pid may name another program by now.
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  UniqueFd gone(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
  ASSERT_TRUE(gone.valid());
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  const AuditToken goneToken{child, 0, 0, gone.get()};
  EXPECT_EQ(
      JournalConsole::fieldsFor({"", goneToken}),
      (std::vector<std::string>{"VEXD_CLIENT_PID=" + std::to_string(child), "VEXD_CLIENT_UID=0"}));
}

}  // namespace
}  // namespace platform
