#include "platform/linux/JournalConsole.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace platform {

namespace {

// The program a client runs; empty once the process behind the pidfd has
// exited, since its pid may then name another program.
std::string executableOf(const AuditToken& token) {
  if (token.pid <= 0) return {};
  char target[4096];
  const std::string link = "/proc/" + std::to_string(token.pid) + "/exe";
  const ssize_t n = ::readlink(link.c_str(), target, sizeof target);
  if (n <= 0 || static_cast<std::size_t>(n) == sizeof target) return {};
  if (token.pidfd >= 0) {
    pollfd exited{token.pidfd, POLLIN, 0};
    if (::poll(&exited, 1, 0) != 0) return {};
  }
  return std::string(target, static_cast<std::size_t>(n));
}

}  // namespace

bool JournalConsole::standardErrorIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  if (!stream) return false;
  std::uintmax_t dev = 0;
  std::uintmax_t ino = 0;
  if (std::sscanf(stream, "%" SCNuMAX ":%" SCNuMAX, &dev, &ino) != 2) return false;
  struct stat st {};
  if (::fstat(STDERR_FILENO, &st) != 0) return false;
  return st.st_dev == dev && st.st_ino == ino;
}

JournalConsole::JournalConsole(ContextSource source) : source_(std::move(source)) {}

std::vector<std::string> JournalConsole::fieldsFor(const JournalContext& context) {
  std::vector<std::string> fields;
  if (!context.request.empty()) fields.push_back("VEXD_REQUEST=" + context.request);
  if (context.client) {
    fields.push_back("VEXD_CLIENT_PID=" + std::to_string(context.client->pid));
    fields.push_back("VEXD_CLIENT_UID=" + std::to_string(context.client->uid));
    std::string exe = executableOf(*context.client);
    if (!exe.empty()) fields.push_back("VEXD_CLIENT_EXE=" + exe);
  }
  return fields;
}

void JournalConsole::send(const std::string& message) const {
  std::vector<std::string> fields = fieldsFor(source_ ? source_() : JournalContext{});
  fields.insert(fields.begin(),
                {"MESSAGE=" + message, "PRIORITY=6",
                 std::string("SYSLOG_IDENTIFIER=") + program_invocation_short_name});
  std::vector<iovec> iov;
  iov.reserve(fields.size());
  for (std::string& f : fields) iov.push_back({f.data(), f.size()});
  if (::sd_journal_sendv(iov.data(), static_cast<int>(iov.size())) < 0) {
    std::string line = message + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
  }
}

}  // namespace platform
