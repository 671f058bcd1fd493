#include "ovix/ActivatedSockets.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>

#include <algorithm>

#include "ovix/Socket.h"

namespace ovix {

namespace {

std::vector<int> passedToThisProcess() {
  // sd_listen_fds checks that LISTEN_PID names this process, so variables
  // inherited from an activated parent are ignored.
  std::vector<int> fds;
  const int count = ::sd_listen_fds(1);
  for (int i = 0; i < count; ++i) {
    const int fd = SD_LISTEN_FDS_START + i;
    ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    fds.push_back(fd);
  }
  return fds;
}

}  // namespace

ActivatedSockets& ActivatedSockets::instance() {
  static ActivatedSockets* sockets = new ActivatedSockets(passedToThisProcess());
  return *sockets;
}

ActivatedSockets::ActivatedSockets(std::vector<int> passed) : available_(std::move(passed)) {}

ActivatedSockets::~ActivatedSockets() {
  for (int fd : available_) ::close(fd);
}

platform::UniqueFd ActivatedSockets::take(const std::string& path) {
  std::lock_guard lock(mutex_);
  for (auto it = available_.begin(); it != available_.end(); ++it) {
    if (::sd_is_socket_unix(*it, SOCK_STREAM, 1, path.c_str(), 0) > 0) {
      const int fd = *it;
      available_.erase(it);
      handedOut_.push_back(fd);
      return platform::UniqueFd(fd);
    }
  }
  return platform::UniqueFd();
}

platform::Result<platform::UniqueFd> ActivatedSockets::listenAt(const std::string& path) {
  platform::UniqueFd passed = take(path);
  if (passed.valid()) return passed;
  return socket::listenAt(path);
}

bool ActivatedSockets::forget(int fd) {
  std::lock_guard lock(mutex_);
  auto it = std::find(handedOut_.begin(), handedOut_.end(), fd);
  if (fd < 0 || it == handedOut_.end()) return false;
  handedOut_.erase(it);
  return true;
}

}  // namespace ovix
