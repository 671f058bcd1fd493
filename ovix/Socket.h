// The system calls behind listeners and connections, each returning an
// owned descriptor or the errno that stopped it.
#pragma once

#include <cstdint>
#include <string>

#include "platform/AuditToken.h"
#include "platform/Result.h"
#include "platform/linux/UniqueFd.h"

namespace ovix::socket {

using platform::UniqueFd;

// Creates the directory and any missing parents (mode 0755).
platform::Status makeDirectory(const std::string& path);

// Takes the exclusive lock that says a live process serves the name; fails
// with EADDRINUSE when another process holds it.
platform::Result<UniqueFd> lockService(const std::string& lockPath);

// Binds and listens at path (mode 0666), first removing a socket file left
// there; anything other than a socket at path is left alone (EEXIST).
platform::Result<UniqueFd> listenAt(const std::string& path);

platform::Result<UniqueFd> connectTo(const std::string& path);

// Accepts one client; the error code is the errno.
platform::Result<UniqueFd> acceptFrom(int listeningFd);

// The peer of a connected socket as the kernel saw it at connect time, and a
// pidfd for it (SO_PEERPIDFD, or pidfd_open on older kernels; -1 if neither).
platform::AuditToken peerToken(int fd, UniqueFd& pidfd);

// The uid the peer connected as; an unknown peer reads as nobody (65534),
// never as root.
std::uint32_t peerUid(int fd);

// An eventfd that wakes a poll() from another thread.
UniqueFd makeWakeFd();
void signalWake(int fd);
void drainWake(int fd);

}  // namespace ovix::socket
