#include "ovix/ActivatedSockets.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>

#include "ovix/TestSupport.h"

namespace ovix {
namespace {

// A stream socket bound at path, listening or not, as a manager would pass it.
int boundSocket(const std::string& path, bool listening, int type = SOCK_STREAM) {
  int fd = ::socket(AF_UNIX, type, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  if (listening) {
    EXPECT_EQ(::listen(fd, 4), 0);
  }
  return fd;
}

ino_t inodeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

TEST(OvixActivatedSockets, HandsOutOnlyAListeningStreamSocketAtThePathAndOnlyOnce) {
  testing::ScopedRuntimeDirectory dir;
  const std::string path = dir.path() + "/svc";
  const int other = boundSocket(dir.path() + "/other", true);
  const int idle = boundSocket(dir.path() + "/idle", false);
  const int datagram = boundSocket(dir.path() + "/dgram", false, SOCK_DGRAM);
  const int wanted = boundSocket(path, true);
  ActivatedSockets sockets({other, idle, datagram, wanted});

  EXPECT_FALSE(sockets.take(dir.path() + "/idle").valid());
  EXPECT_FALSE(sockets.take(dir.path() + "/dgram").valid());
  EXPECT_FALSE(sockets.take(dir.path() + "/nothing").valid());
  EXPECT_FALSE(sockets.forget(wanted));
  platform::UniqueFd taken = sockets.take(path);
  EXPECT_EQ(taken.get(), wanted);
  EXPECT_FALSE(sockets.take(path).valid()) << "handed out twice";
  EXPECT_TRUE(sockets.forget(wanted));
  EXPECT_FALSE(sockets.forget(wanted)) << "a closed number may be reused by anything";
}

TEST(OvixActivatedSockets, ServesOnThePassedSocketAndBindsItsOwnOtherwise) {
  testing::ScopedRuntimeDirectory dir;
  const std::string path = dir.path() + "/svc";
  const int passed = boundSocket(path, true);
  const ino_t before = inodeOf(path);
  ActivatedSockets sockets({passed});

  auto first = sockets.listenAt(path);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->get(), passed);
  EXPECT_EQ(inodeOf(path), before) << "the manager's socket file must stay";

  // Nothing passed any more: the path is taken over as a dead process's.
  auto second = sockets.listenAt(path);
  ASSERT_TRUE(second) << second.error().description;
  EXPECT_NE(inodeOf(path), before);
  EXPECT_FALSE(sockets.forget(second->get()));
}

}  // namespace
}  // namespace ovix
