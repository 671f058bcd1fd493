#include "ovix/Listener.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "ovix/Connection.h"
#include "ovix/TestSupport.h"

namespace ovix {
namespace {

using testing::EventRecorder;

class OvixListener : public ::testing::Test {
 protected:
  std::string pathOf(const std::string& name) { return dir_.path() + "/" + name; }
  testing::ScopedRuntimeDirectory dir_;
};

mode_t modeOf(const std::string& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return st.st_mode & 07777;
}

// Leaves a socket file behind the way a crashed service does.
void leaveStaleSocket(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::close(fd);
}

TEST_F(OvixListener, ServesUntilCancelledThenRemovesItsSocket) {
  auto listener = Listener::create("svc.cancel");
  ASSERT_TRUE(listener) << listener.error().description;
  EXPECT_EQ(modeOf(pathOf("svc.cancel")), 0666u);
  auto events = EventRecorder::make();
  (*listener)->setEventHandler(events->handler());
  (*listener)->resume();

  auto client = Connection::connect("svc.cancel");
  ASSERT_TRUE(client);
  ASSERT_TRUE(events->waitForCount(1));
  EXPECT_TRUE(events->events()[0].isConnection());

  (*listener)->cancel();
  ASSERT_TRUE(events->waitFor(errorConnectionInvalid()));
  EXPECT_EQ(events->events().back(), errorConnectionInvalid());
  EXPECT_EQ(::access(pathOf("svc.cancel").c_str(), F_OK), -1);
  EXPECT_FALSE(Connection::connect("svc.cancel"));
  EXPECT_TRUE(Listener::create("svc.cancel")) << "the name is free again";
}

TEST_F(OvixListener, ReplacesTheSocketOfADeadProcessButNeverTakesALiveOne) {
  leaveStaleSocket(pathOf("svc.stale"));
  auto replaced = Listener::create("svc.stale");
  ASSERT_TRUE(replaced) << replaced.error().description;

  auto second = Listener::create("svc.stale");
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().code, EADDRINUSE);
  auto events = EventRecorder::make();
  (*replaced)->setEventHandler(events->handler());
  (*replaced)->resume();
  auto client = Connection::connect("svc.stale");
  ASSERT_TRUE(client);
  EXPECT_TRUE(events->waitForCount(1)) << "the first listener still serves";
}

TEST_F(OvixListener, AServiceFreedByItsProcessDyingCanBeTakenOver) {
  OVIX_SKIP_IF_FORK_UNSAFE();
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  testing::ChildProcess child([&] {
    auto l = Listener::create("svc.other");
    char c = l ? 'y' : 'n';
    [[maybe_unused]] ssize_t n = ::write(ready[1], &c, 1);
    ::pause();
    return 0;
  });
  char c = 0;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  ASSERT_EQ(c, 'y');
  auto taken = Listener::create("svc.other");
  ASSERT_FALSE(taken);
  EXPECT_EQ(taken.error().code, EADDRINUSE);

  ::kill(child.pid(), SIGKILL);
  child.waitStatus();
  EXPECT_TRUE(Listener::create("svc.other")) << "the dead process's socket is stale";
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(OvixListener, LeavesAFileThatIsNotASocketAlone) {
  std::ofstream(pathOf("svc.file")) << "keep me";
  auto l = Listener::create("svc.file");
  ASSERT_FALSE(l);
  EXPECT_EQ(l.error().code, EEXIST);
  std::ifstream in(pathOf("svc.file"));
  std::string text;
  std::getline(in, text);
  EXPECT_EQ(text, "keep me");
}

TEST_F(OvixListener, RefusesNamesThatAreNotOnePlainComponent) {
  const std::vector<std::string> names = {"",
                                          ".hidden",
                                          "a/b",
                                          "..",
                                          "with space",
                                          "tab\tname",
                                          std::string(200, 'x'),
                                          std::string("nul\0x", 5)};
  for (const std::string& name : names) {
    auto l = Listener::create(name);
    ASSERT_FALSE(l) << name;
    EXPECT_EQ(l.error().code, EINVAL) << name;
    auto c = Connection::connect(name);
    ASSERT_FALSE(c) << name;
    EXPECT_EQ(c.error().code, EINVAL) << name;
  }
}

TEST_F(OvixListener, CreatesAMissingRuntimeDirectoryOpenToEveryUser) {
  const std::string nested = dir_.path() + "/a/b";
  ::setenv("OVIX_RUNTIME_DIR", nested.c_str(), 1);
  const mode_t old = ::umask(077);
  auto l = Listener::create("svc.mode");
  ::umask(old);
  ASSERT_TRUE(l) << l.error().description;
  EXPECT_EQ(modeOf(nested), 0755u);
  EXPECT_EQ(modeOf(nested + "/svc.mode"), 0666u);
}

TEST_F(OvixListener, ConnectSaysWhyItFailed) {
  auto none = Connection::connect("svc.none");
  ASSERT_FALSE(none);
  EXPECT_EQ(none.error().code, ENOENT);
  leaveStaleSocket(pathOf("svc.dead"));
  auto dead = Connection::connect("svc.dead");
  ASSERT_FALSE(dead);
  EXPECT_EQ(dead.error().code, ECONNREFUSED);
}

}  // namespace
}  // namespace ovix
