#include "ovix/Socket.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ovix/SenderCredentials.h"

#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

namespace ovix::socket {

namespace {

platform::Error posixError(int err, const std::string& what, const std::string& path) {
  return platform::Error::posix(err, what + " " + path + ": " + std::strerror(err));
}

bool fillAddress(const std::string& path, sockaddr_un& addr) {
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) return false;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

platform::Status makeDirectory(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return platform::Status::success();
    return posixError(ENOTDIR, "cannot use", path);
  }
  const std::size_t slash = path.find_last_of('/');
  if (slash != std::string::npos && slash > 0) {
    platform::Status parent = makeDirectory(path.substr(0, slash));
    if (!parent) return parent;
  }
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    return posixError(errno, "cannot create", path);
  }
  // The umask must not narrow it: every user may connect to our services.
  ::chmod(path.c_str(), 0755);
  return platform::Status::success();
}

platform::Result<UniqueFd> lockService(const std::string& lockPath) {
  UniqueFd fd(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!fd.valid()) return posixError(errno, "cannot open", lockPath);
  if (::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
    const int err = errno == EWOULDBLOCK ? EADDRINUSE : errno;
    return platform::Error::posix(
        err, "the service is already served by a live process (lock " + lockPath + " is held)");
  }
  return fd;
}

platform::Result<UniqueFd> listenAt(const std::string& path) {
  sockaddr_un addr;
  if (!fillAddress(path, addr)) return posixError(ENAMETOOLONG, "cannot bind", path);
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) return posixError(EEXIST, "not a socket, left alone:", path);
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
      return posixError(errno, "cannot remove stale socket", path);
    }
  }
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return posixError(errno, "cannot create socket for", path);
  if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    return posixError(errno, "cannot bind", path);
  }
  if (::chmod(path.c_str(), 0666) != 0) return posixError(errno, "cannot set mode of", path);
  // Every frame is served as the process that wrote it, so every read must
  // say who that was; accepted sockets inherit this.
  if (!credentials::enable(fd.get()))
    return posixError(errno, "cannot ask for credentials on", path);
  if (::listen(fd.get(), SOMAXCONN) != 0) return posixError(errno, "cannot listen at", path);
  return fd;
}

platform::Result<UniqueFd> connectTo(const std::string& path) {
  sockaddr_un addr;
  if (!fillAddress(path, addr)) return posixError(ENAMETOOLONG, "cannot connect to", path);
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return posixError(errno, "cannot create socket for", path);
  int rc;
  do {
    rc = ::connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) return posixError(errno, "cannot connect to", path);
  return fd;
}

platform::Result<UniqueFd> acceptFrom(int listeningFd) {
  int fd = ::accept4(listeningFd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return platform::Error::posix(errno, std::string("accept: ") + std::strerror(errno));
  UniqueFd accepted(fd);
  // Also for a listening socket we did not make (inherited from a launcher);
  // a client we cannot ask about is dropped like one that vanished (EPROTO).
  if (!credentials::enable(accepted.get()))
    return platform::Error::posix(EPROTO, std::string("credentials: ") + std::strerror(errno));
  return accepted;
}

platform::AuditToken peerToken(int fd, UniqueFd& pidfd) {
  platform::AuditToken token;
  ucred cred{};
  socklen_t len = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) {
    token.pid = cred.pid;
    token.uid = cred.uid;
    token.gid = cred.gid;
  }
  int pfd = -1;
  len = sizeof pfd;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERPIDFD, &pfd, &len) != 0) {
    pfd = -1;
    // Older kernels: the pid may already name another process if the peer
    // died in between; later checks against the pidfd catch that.
    if (token.pid > 0) {
      pfd = static_cast<int>(::syscall(SYS_pidfd_open, token.pid, 0));
    }
  }
  pidfd.reset(pfd >= 0 ? pfd : -1);
  token.pidfd = pidfd.get();
  return token;
}

std::uint32_t peerUid(int fd) {
  ucred cred{};
  socklen_t len = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return 65534;
  return cred.uid;
}

UniqueFd makeWakeFd() { return UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)); }

void signalWake(int fd) {
  const std::uint64_t one = 1;
  [[maybe_unused]] ssize_t n = ::write(fd, &one, sizeof one);
}

void drainWake(int fd) {
  std::uint64_t n;
  [[maybe_unused]] ssize_t r = ::read(fd, &n, sizeof n);
}

}  // namespace ovix::socket
