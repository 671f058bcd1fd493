// SIGTERM handling runs in forked children: the test runner itself must
// keep the usual meaning of SIGTERM.
#include "ovix/Runtime.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "ovix/Connection.h"
#include "ovix/Listener.h"
#include "ovix/TestSupport.h"

namespace ovix {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;

class OvixTermination : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(::pipe(pipe_), 0); }
  void TearDown() override {
    ::close(pipe_[0]);
    ::close(pipe_[1]);
  }

  // Reads what the child reports, one letter per event, until `stop` has
  // been seen or the child goes quiet.
  std::string readReports(char stop, std::size_t times) {
    std::string got;
    for (;;) {
      pollfd p{pipe_[0], POLLIN, 0};
      if (::poll(&p, 1, 5000) != 1) return got;
      char c;
      if (::read(pipe_[0], &c, 1) != 1) return got;
      got += c;
      if (static_cast<std::size_t>(std::count(got.begin(), got.end(), stop)) == times) return got;
    }
  }

  static void report(int fd, char c) { [[maybe_unused]] ssize_t n = ::write(fd, &c, 1); }

  testing::ScopedRuntimeDirectory dir_;
  int pipe_[2] = {-1, -1};
};

TEST_F(OvixTermination, SigtermReachesTheListenerAndEveryOpenConnectionOnce) {
  OVIX_SKIP_IF_FORK_UNSAFE();
  const int out = pipe_[1];
  ChildProcess child([out] {
    auto l = Listener::create("svc.term");
    if (!l) return 30;
    std::atomic<int> told{0};
    (*l)->setEventHandler([out, &told](const Object& e) {
      if (auto c = e.connectionValue()) {
        c->setEventHandler([c, out, &told](const Object& ce) {
          if (ce == errorTerminationImminent()) {
            report(out, 'C');
            ++told;
          }
        });
        c->resume();
        report(out, 'R');
      } else if (e == errorTerminationImminent()) {
        report(out, 'L');
        ++told;
      }
    });
    (*l)->resume();
    auto a = Connection::connect("svc.term");
    auto b = Connection::connect("svc.term");
    if (!a || !b) return 31;
    // Stay alive (SIGTERM must not end us) until all three were told.
    for (int i = 0; i < 1000 && told < 3; ++i) std::this_thread::sleep_for(10ms);
    std::this_thread::sleep_for(100ms);
    return told == 3 ? 0 : 32;
  });
  ASSERT_EQ(readReports('R', 2), "RR");
  ASSERT_EQ(::kill(child.pid(), SIGTERM), 0);
  std::string told = readReports('C', 2);
  if (told.find('L') == std::string::npos) told += readReports('L', 1);
  std::sort(told.begin(), told.end());
  EXPECT_EQ(told, "CCL");
  EXPECT_EQ(child.wait(), 0) << "the child lived through SIGTERM and heard it three times";
}

TEST_F(OvixTermination, WithNobodyLeftToTellSigtermEndsTheProcessAsUsual) {
  OVIX_SKIP_IF_FORK_UNSAFE();
  const int out = pipe_[1];
  ChildProcess child([out] {
    auto l = Listener::create("svc.gone");
    if (!l) return 40;
    auto events = testing::EventRecorder::make();
    (*l)->setEventHandler(events->handler());
    (*l)->resume();
    (*l)->cancel();
    if (!events->waitFor(errorConnectionInvalid())) return 41;
    report(out, 'R');
    std::this_thread::sleep_for(5s);
    return 0;
  });
  ASSERT_EQ(readReports('R', 1), "R");
  ASSERT_EQ(::kill(child.pid(), SIGTERM), 0);
  const int status = child.waitStatus();
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST_F(OvixTermination, AChildForkedByAServiceDiesOfSigtermAsUsual) {
  OVIX_SKIP_IF_FORK_UNSAFE();
  // A service's children (helpers it forks) must not inherit a SIGTERM
  // nobody takes.
  ChildProcess service([] {
    auto l = Listener::create("svc.parent");
    if (!l) return 50;
    ChildProcess helper([] {
      ::pause();
      return 0;
    });
    std::this_thread::sleep_for(50ms);
    ::kill(helper.pid(), SIGTERM);
    const int status = helper.waitStatus(5s);
    return status >= 0 && WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM ? 0 : 51;
  });
  EXPECT_EQ(service.wait(), 0);
}

}  // namespace
}  // namespace ovix
