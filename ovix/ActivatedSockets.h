// Listening sockets a service manager passed to this process at start
// (socket activation: LISTEN_PID, LISTEN_FDS). A service started that way
// serves on the socket it was given instead of binding its own, so clients
// connecting while it is not running start it.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/Result.h"
#include "platform/linux/UniqueFd.h"

namespace ovix {

class ActivatedSockets {
 public:
  // Collects the passed descriptors on first use and clears the variables,
  // so programs this process starts do not take them for theirs.
  static ActivatedSockets& instance();

  // The passed socket listening for streams at `path`, handed out once; an
  // invalid descriptor when none was passed for it.
  platform::UniqueFd take(const std::string& path);

  // The passed socket at `path` if there is one, else a socket bound here.
  platform::Result<platform::UniqueFd> listenAt(const std::string& path);

  // Whether fd is a socket the manager owns, whose file is not ours to
  // remove. Call it as fd is closed: the number is forgotten.
  bool forget(int fd);

  // The process's set is made from LISTEN_FDS; tests pass descriptors of
  // their own, which then belong to the set.
  explicit ActivatedSockets(std::vector<int> passed);
  ~ActivatedSockets();
  ActivatedSockets(const ActivatedSockets&) = delete;
  ActivatedSockets& operator=(const ActivatedSockets&) = delete;

 private:
  mutable std::mutex mutex_;
  std::vector<int> available_;
  std::vector<int> handedOut_;
};

}  // namespace ovix
