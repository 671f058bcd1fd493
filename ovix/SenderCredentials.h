// Who sent the bytes of one read: the kernel attaches the sending process's
// credentials (and a pidfd for it) to every write on a socket that asks for
// them, and never merges the writes of two senders into one read.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/AuditToken.h"
#include "platform/linux/UniqueFd.h"

namespace ovix {

struct Sender {
  std::int32_t pid = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  // Shared by every frame the read completed; closed with the last of them.
  std::shared_ptr<platform::UniqueFd> pidfd;

  bool sameAs(const Sender& other) const {
    return pid == other.pid && uid == other.uid && gid == other.gid;
  }
  platform::AuditToken token() const;
};

struct Received {
  ssize_t bytes = 0;  // as recv() answers: -1 with `error`, 0 at the end
  int error = 0;
  std::optional<Sender> sender;  // only where the socket passes credentials
};

namespace credentials {

// Asks the kernel for the sender's credentials on every read of `fd`
// (SO_PASSCRED), with a pidfd where the kernel has SO_PASSPIDFD. Accepted
// sockets inherit both from their listening socket.
bool enable(int fd);

// Whether reads of `fd` bring a pidfd of their own (SO_PASSPIDFD is on).
bool passesPidfds(int fd);

// One non-blocking read with its sender. Where the socket passes pidfds, a
// read whose pidfd the kernel could not give (the sender is gone) gets none,
// rather than one opened for a pid that may have been reused since. Descriptors a peer passed along
// (SCM_RIGHTS) are closed: the service takes none.
Received receive(int fd, std::uint8_t* buffer, std::size_t length, bool pidfdsPassed);

}  // namespace credentials

}  // namespace ovix
