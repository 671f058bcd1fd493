#include "platform/linux/LinuxGatecards.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include "platform/EntitlementGrant.h"
#include "platform/PropertyList.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/ProcStatus.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

namespace {

// Grants are a few lines; anything much larger is not one.
constexpr off_t kMaxGrantBytes = 1 << 20;

// Only root may have written it: owned by root, not writable by group or
// others.
bool trustedByRoot(const struct stat& st) {
  return st.st_uid == 0 && (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// A small text file of /proc, read whole (its size reads as 0, so read to
// the end); nothing when it cannot be read.
std::optional<std::string> readProcText(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return std::nullopt;
  std::string text;
  char buf[4096];
  for (;;) {
    ssize_t n = ::read(fd.get(), buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) return text;
    text.append(buf, static_cast<std::size_t>(n));
    if (text.size() > (1u << 16)) return text;  // the fields wanted come first
  }
}

// The pid a pidfd refers to, as the kernel reports it: -1 once that process
// has exited; nothing when the descriptor is not a pidfd.
std::optional<long> pidOfPidfd(int pidfd) {
  auto text = readProcText("/proc/self/fdinfo/" + std::to_string(pidfd));
  return text ? procStatusPid(*text) : std::nullopt;
}

// The supplementary groups of a process ("Groups:" of its status).
std::optional<std::vector<std::uint32_t>> supplementaryGroups(long pid) {
  auto text = readProcText("/proc/" + std::to_string(pid) + "/status");
  return text ? procStatusGroups(*text) : std::nullopt;
}

Result<Data> readSmallFile(int dirFd, const std::string& name) {
  UniqueFd fd(::openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd.valid()) return posixError(errno, name);
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return posixError(errno, name);
  if (!S_ISREG(st.st_mode) || !trustedByRoot(st) || st.st_size > kMaxGrantBytes)
    return posixError(EPERM, name);
  Data bytes(static_cast<std::size_t>(st.st_size));
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::read(fd.get(), bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return posixError(n < 0 ? errno : EIO, name);
    done += static_cast<std::size_t>(n);
  }
  return bytes;
}

}  // namespace

LinuxGatecards::LinuxGatecards(std::string grantDirectory)
    : grantDirectory_(std::move(grantDirectory)) {}

Result<Gatecard> LinuxGatecards::createFromAuditToken(const AuditToken& token) {
  std::string who = "process " + std::to_string(token.pid);
  if (token.pid <= 0) return posixError(ESRCH, who);
  // Without a pidfd nothing tells a recycled pid from the peer.
  if (token.pidfd < 0) return posixError(EBADF, who + " has no process descriptor");
  auto stillThePeer = [&] {
    auto pid = pidOfPidfd(token.pidfd);
    return pid && *pid == token.pid;
  };
  if (!stillThePeer()) return posixError(ESRCH, who + " has exited or its pid was reused");

  std::string exe = "/proc/" + std::to_string(token.pid) + "/exe";
  char target[PATH_MAX];
  ssize_t n = ::readlink(exe.c_str(), target, sizeof target);
  if (n < 0) return posixError(errno, exe);
  if (static_cast<std::size_t>(n) == sizeof target) return posixError(ENAMETOOLONG, exe);
  UniqueFd image(::open(exe.c_str(), O_PATH | O_CLOEXEC));
  struct stat running {};
  if (!image.valid() || ::fstat(image.get(), &running) != 0) return posixError(errno, exe);
  // The user and group are those the message was sent with; supplementary
  // groups can only be read from the process as it is now.
  GrantSender sender{token.uid, {token.gid}};
  auto groups = supplementaryGroups(token.pid);
  if (!groups) return posixError(ESRCH, who + " has no readable status");
  sender.gids.insert(sender.gids.end(), groups->begin(), groups->end());
  // Checked again after reading: the answers above belong to the peer only
  // if its pid did not change hands meanwhile.
  if (!stillThePeer()) return posixError(ESRCH, who + " has exited or its pid was reused");

  // The path must still name the image that runs: a binary replaced or
  // deleted since it started is not the program its path now names.
  Gatecard card{std::string(target, static_cast<std::size_t>(n)), {}};
  struct stat named {};
  if (::stat(card.program.c_str(), &named) != 0 || named.st_dev != running.st_dev ||
      named.st_ino != running.st_ino)
    return posixError(ESTALE, card.program + " no longer names the program " + who + " runs");
  if (trustedByRoot(running)) card.entitlements = grantsFor(card.program, sender);
  return card;
}

Dictionary LinuxGatecards::grantsFor(const std::string& program, const GrantSender& sender) {
  Dictionary merged;
  AccountIDLookup userID = [this](const std::string& name) { return accounts_.userID(name); };
  AccountIDLookup groupID = [this](const std::string& name) { return accounts_.groupID(name); };
  UniqueFd dirFd(::open(grantDirectory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat st {};
  if (!dirFd.valid() || ::fstat(dirFd.get(), &st) != 0 || !trustedByRoot(st)) return merged;

  std::vector<std::string> names;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::fdopendir(::dup(dirFd.get())), ::closedir);
  if (!dir) return merged;
  while (dirent* e = ::readdir(dir.get())) {
    std::string name = e->d_name;
    if (name.size() > 6 && name[0] != '.' && name.ends_with(".plist")) names.push_back(name);
  }
  // Files are read in name order; a later grant of the same entitlement wins.
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    auto bytes = readSmallFile(dirFd.get(), name);
    if (!bytes) continue;
    auto parsed = parsePropertyList(*bytes);
    auto grant = parsed ? EntitlementGrant::fromValue(*parsed) : std::nullopt;
    if (!grant || grant->program() != program) continue;
    // A grant for other accounts is skipped whole, so it neither grants nor
    // overrides anything for this sender.
    if (!grant->holdsFor(sender, userID, groupID)) continue;
    for (const auto& [key, value] : grant->entitlements()) merged.set(key, value);
  }
  return merged;
}

}  // namespace platform
