#include "ovix/SenderCredentials.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#ifndef SO_PASSPIDFD
#define SO_PASSPIDFD 76
#endif
#ifndef SCM_PIDFD
#define SCM_PIDFD 0x04
#endif

namespace ovix {

platform::AuditToken Sender::token() const {
  platform::AuditToken t;
  // pid 0 is what the kernel reports for bytes that carry no credentials.
  t.pid = pid > 0 ? pid : -1;
  t.uid = uid;
  t.gid = gid;
  t.pidfd = pidfd ? pidfd->get() : -1;
  return t;
}

namespace credentials {

bool enable(int fd) {
  const int on = 1;
  if (::setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) return false;
  // Older kernels lack it; the pid's own pidfd is opened on receipt instead.
  (void)::setsockopt(fd, SOL_SOCKET, SO_PASSPIDFD, &on, sizeof on);
  return true;
}

bool passesPidfds(int fd) {
  int on = 0;
  socklen_t len = sizeof on;
  return ::getsockopt(fd, SOL_SOCKET, SO_PASSPIDFD, &on, &len) == 0 && on != 0;
}

Received receive(int fd, std::uint8_t* buffer, std::size_t length, bool pidfdsPassed) {
  // Room for the credentials, a pidfd and a handful of passed descriptors;
  // any that do not fit are discarded by the kernel (MSG_CTRUNC).
  alignas(cmsghdr) char
      control[CMSG_SPACE(sizeof(ucred)) + CMSG_SPACE(sizeof(int)) + CMSG_SPACE(16 * sizeof(int))];
  iovec iov{buffer, length};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  Received r;
  r.bytes = ::recvmsg(fd, &msg, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
  if (r.bytes < 0) {
    r.error = errno;
    return r;
  }
  int pidfd = -1;
  bool hasCredentials = false;
  Sender sender;
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level != SOL_SOCKET) continue;
    const std::size_t payload = c->cmsg_len - CMSG_LEN(0);
    if (c->cmsg_type == SCM_CREDENTIALS && payload >= sizeof(ucred)) {
      ucred cred;
      std::memcpy(&cred, CMSG_DATA(c), sizeof cred);
      sender.pid = cred.pid;
      sender.uid = cred.uid;
      sender.gid = cred.gid;
      hasCredentials = true;
    } else if (c->cmsg_type == SCM_PIDFD && payload >= sizeof(int)) {
      std::memcpy(&pidfd, CMSG_DATA(c), sizeof pidfd);
    } else if (c->cmsg_type == SCM_RIGHTS) {
      for (std::size_t i = 0; i + sizeof(int) <= payload; i += sizeof(int)) {
        int passed;
        std::memcpy(&passed, CMSG_DATA(c) + i, sizeof passed);
        ::close(passed);
      }
    }
  }
  platform::UniqueFd owned(pidfd);
  if (!hasCredentials) return r;
  if (!owned.valid() && !pidfdsPassed && sender.pid > 0) {
    // Without SCM_PIDFD: a pidfd for that pid, which names another process
    // if the sender died and its pid was reused since; the entitlement check
    // compares the two and refuses such a pid.
    owned.reset(static_cast<int>(::syscall(SYS_pidfd_open, sender.pid, 0)));
  }
  if (owned.valid()) sender.pidfd = std::make_shared<platform::UniqueFd>(std::move(owned));
  r.sender = std::move(sender);
  return r;
}

}  // namespace credentials

}  // namespace ovix
