// Who is on the other end of a connection, as taken at accept.
#pragma once

#include <cstdint>
#include <memory>

namespace platform {

struct AuditToken {
  std::int32_t pid = -1;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  // A descriptor that keeps naming the peer process even if its pid is
  // reused; -1 when none could be taken. Owned by the connection.
  int pidfd = -1;
};

}  // namespace platform
