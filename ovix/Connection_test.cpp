#include "ovix/Connection.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>

#include "ovix/ConnectionCore.h"
#include "ovix/Listener.h"
#include "ovix/ServiceName.h"
#include "ovix/Socket.h"
#include "ovix/TestSupport.h"
#include "ovix/WireFormat.h"

namespace ovix {
namespace {

using namespace std::chrono_literals;
using testing::ChildProcess;
using testing::EventRecorder;

// A listener whose connections are handed to a per-test function, with the
// accepted connections kept for inspection.
class OvixConnection : public ::testing::Test {
 protected:
  using Serve = std::function<void(const std::shared_ptr<Connection>&)>;

  void listen(const std::string& name, Serve serve) {
    auto l = Listener::create(name);
    ASSERT_TRUE(l) << l.error().description;
    listener_ = *l;
    auto state = state_;
    listener_->setEventHandler([state, serve](const Object& event) {
      auto c = event.connectionValue();
      if (!c) return;
      {
        std::lock_guard lock(state->mutex);
        state->accepted.push_back(c);
        state->cv.notify_all();
      }
      serve(c);
    });
    listener_->resume();
  }

  std::shared_ptr<Connection> acceptedAt(std::size_t i) {
    std::unique_lock lock(state_->mutex);
    state_->cv.wait_for(lock, 5s, [&] { return state_->accepted.size() > i; });
    return state_->accepted.size() > i ? state_->accepted[i] : nullptr;
  }

  // Echoes every dictionary back and records every event of the connection.
  static Serve echo(std::shared_ptr<EventRecorder> events) {
    return [events](const std::shared_ptr<Connection>& c) {
      c->setEventHandler([c, events](const Object& e) {
        events->record(e);
        if (e.isDictionary()) c->send(e);
      });
      c->resume();
    };
  }

  static Object request(const std::string& key, std::int64_t n) {
    Object m = Object::makeDictionary();
    m.setInt64(key, n);
    return m;
  }

  struct State {
    std::mutex mutex;
    std::condition_variable cv;
    std::vector<std::shared_ptr<Connection>> accepted;
  };
  testing::ScopedRuntimeDirectory dir_;
  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::shared_ptr<Listener> listener_;
};

TEST_F(OvixConnection, EveryTypeRoundTripsBetweenTwoProcesses) {
  OVIX_SKIP_IF_FORK_UNSAFE();
  auto events = EventRecorder::make();
  listen("svc.echo", echo(events));
  ChildProcess child([] {
    auto c = Connection::connect("svc.echo");
    if (!c) return 10;
    const Object sent = testing::everyTypeMessage();
    if (!(*c)->send(sent)) return 11;
    auto back = (*c)->receive(5s);
    if (!back) return 12;
    return *back == sent ? 0 : 13;
  });
  EXPECT_EQ(child.wait(), 0);
  ASSERT_TRUE(events->waitForCount(2));
  EXPECT_EQ(events->events()[0], testing::everyTypeMessage());
  EXPECT_EQ(events->events()[1], errorConnectionInvalid());
}

TEST_F(OvixConnection, EventsOfOneConnectionArriveInOrderOneAtATime) {
  auto seen = std::make_shared<std::vector<std::int64_t>>();
  auto inside = std::make_shared<std::atomic<int>>(0);
  auto overlapped = std::make_shared<std::atomic<bool>>(false);
  auto done = EventRecorder::make();
  listen("svc.order", [=](const std::shared_ptr<Connection>& c) {
    c->setEventHandler([=](const Object& e) {
      if (inside->fetch_add(1) != 0) *overlapped = true;
      if (e.isDictionary()) {
        seen->push_back(e.getInt64("seq"));
        // Slow handling makes frames pile up behind it.
        if (seen->size() % 16 == 0) std::this_thread::sleep_for(1ms);
      }
      inside->fetch_sub(1);
      if (e == errorConnectionInvalid()) done->record(e);
    });
    c->resume();
  });
  auto client = Connection::connect("svc.order");
  ASSERT_TRUE(client);
  constexpr int kCount = 500;
  for (int i = 0; i < kCount; ++i) ASSERT_TRUE((*client)->send(request("seq", i)));
  (*client)->cancel();
  ASSERT_TRUE(done->waitForCount(1));
  ASSERT_EQ(seen->size(), static_cast<std::size_t>(kCount)) << "messages sent before cancel";
  for (int i = 0; i < kCount; ++i) ASSERT_EQ((*seen)[i], i);
  EXPECT_FALSE(*overlapped);
}

TEST_F(OvixConnection, TwoConnectionsAreServedConcurrently) {
  // The first client's request only completes once the second client's has
  // been handled; serving connections one after another would deadlock.
  struct Gate {
    std::mutex m;
    std::condition_variable cv;
    bool entered = false;
    bool open = false;
  };
  auto gate = std::make_shared<Gate>();
  listen("svc.two", [gate](const std::shared_ptr<Connection>& c) {
    c->setEventHandler([c, gate](const Object& e) {
      if (!e.isDictionary()) return;
      Object reply = Object::makeDictionary();
      std::unique_lock lock(gate->m);
      if (e.getBool("open")) {
        gate->open = true;
        gate->cv.notify_all();
      } else {
        gate->entered = true;
        gate->cv.notify_all();
        reply.setBool("passed", gate->cv.wait_for(lock, 5s, [&] { return gate->open; }));
      }
      c->send(reply);
    });
    c->resume();
  });
  auto first = Connection::connect("svc.two");
  auto second = Connection::connect("svc.two");
  ASSERT_TRUE(first && second);
  Object wait = Object::makeDictionary();
  wait.setBool("wait", true);
  Object open = Object::makeDictionary();
  open.setBool("open", true);
  ASSERT_TRUE((*first)->send(wait));
  {
    std::unique_lock lock(gate->m);
    ASSERT_TRUE(gate->cv.wait_for(lock, 5s, [&] { return gate->entered; }));
  }
  ASSERT_TRUE((*second)->send(open));
  auto reply = (*first)->receive(10s);
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->getBool("passed"));
  EXPECT_TRUE((*second)->receive(5s));
}

TEST_F(OvixConnection, ADepartingClientEndsItsConnectionWithExactlyOneInvalidEvent) {
  auto silent = EventRecorder::make();
  auto talking = EventRecorder::make();
  auto recorders =
      std::make_shared<std::vector<std::shared_ptr<EventRecorder>>>(std::vector{silent, talking});
  auto next = std::make_shared<std::atomic<std::size_t>>(0);
  auto released = std::make_shared<std::vector<std::weak_ptr<Connection>>>();
  listen("svc.bye", [=](const std::shared_ptr<Connection>& c) {
    const std::size_t i = next->fetch_add(1);
    if (i >= recorders->size()) return;
    auto events = (*recorders)[i];
    released->push_back(c);
    // The handler keeps its own connection, as a service's handler does.
    c->setEventHandler([c, events](const Object& e) { events->record(e); });
    c->resume();
  });

  {
    auto c = Connection::connect("svc.bye");
    ASSERT_TRUE(c);
    ASSERT_NE(acceptedAt(0), nullptr);
  }
  ASSERT_TRUE(silent->waitForCount(1));
  {
    auto c = Connection::connect("svc.bye");
    ASSERT_TRUE(c);
    ASSERT_TRUE((*c)->send(request("hello:", 1)));
  }
  ASSERT_TRUE(talking->waitForCount(2));
  std::this_thread::sleep_for(200ms);  // room for a wrong second event

  EXPECT_EQ(silent->events(), std::vector<Object>{errorConnectionInvalid()});
  EXPECT_EQ(talking->events(),
            (std::vector<Object>{request("hello:", 1), errorConnectionInvalid()}));
  // After its last event the handler is let go, so the connection is too.
  {
    std::lock_guard lock(state_->mutex);
    state_->accepted.clear();
  }
  for (auto& w : *released) EXPECT_TRUE(w.expired());
  EXPECT_TRUE(Connection::connect("svc.bye")) << "the listener keeps serving";
}

TEST_F(OvixConnection, SendingToAVanishedPeerNeitherRaisesSigpipeNorBlocks) {
  // The handler is held up while the client floods and leaves, so reading
  // pauses and the service cannot have noticed the end when it writes.
  struct Gate {
    std::mutex m;
    std::condition_variable cv;
    bool open = false;
  };
  auto gate = std::make_shared<Gate>();
  auto events = EventRecorder::make();
  listen("svc.pipe", [events, gate](const std::shared_ptr<Connection>& c) {
    c->setEventHandler([events, gate](const Object& e) {
      std::unique_lock lock(gate->m);
      gate->cv.wait_for(lock, 5s, [&] { return gate->open; });
      events->record(e);
    });
    c->resume();
  });
  auto client = Connection::connect("svc.pipe");
  ASSERT_TRUE(client);
  for (std::size_t i = 0; i < ConnectionCore::kMaxPendingFrames + 100; ++i) {
    ASSERT_TRUE((*client)->send(request("flood", 1)));
  }
  (*client)->cancel();
  auto end = (*client)->receive(5s);
  ASSERT_TRUE(end && *end == errorConnectionInvalid()) << "the client has closed its end";
  auto server = acceptedAt(0);
  ASSERT_NE(server, nullptr);

  Object big = Object::makeDictionary();
  big.setData("Data", Bytes(256 * 1024, 7));
  // With SIGPIPE raised the test runner would die here.
  for (int i = 0; i < 8; ++i) server->send(big);
  {
    std::lock_guard lock(gate->m);
    gate->open = true;
  }
  gate->cv.notify_all();
  ASSERT_TRUE(events->waitFor(errorConnectionInvalid()));
  EXPECT_EQ(events->events().size(), ConnectionCore::kMaxPendingFrames + 101)
      << "every frame sent before the client left, then the end";
  EXPECT_FALSE(server->send(big)) << "a closed connection refuses sends";
  EXPECT_FALSE(server->send(Object::makeInt64(1)));
}

TEST_F(OvixConnection, ReceiveWaitsAtMostItsTimeoutAndReportsTheEnd) {
  listen("svc.quiet", [](const std::shared_ptr<Connection>& c) { c->resume(); });
  auto client = Connection::connect("svc.quiet");
  ASSERT_TRUE(client);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE((*client)->receive(150ms));
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, 150ms);
  EXPECT_LT(waited, 3s);

  auto server = acceptedAt(0);
  ASSERT_NE(server, nullptr);
  server->cancel();
  auto end = (*client)->receive(5s);
  ASSERT_TRUE(end);
  EXPECT_EQ(*end, errorConnectionInvalid());
  EXPECT_EQ((*client)->receive(0ms), errorConnectionInvalid()) << "and stays ended";
}

TEST_F(OvixConnection, TheAuditTokenNamesAPeerRunningAsAnotherUser) {
  OVIX_SKIP_IF_FORK_UNSAFE();
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to start a peer as another user";
  auto events = EventRecorder::make();
  listen("svc.who", echo(events));
  ChildProcess child([] {
    if (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
        ::setresuid(65534, 65534, 65534) != 0) {
      return 20;
    }
    auto c = Connection::connect("svc.who");
    if (!c) return 21;
    (*c)->send(request("who", 1));
    return (*c)->receive(5s) ? 0 : 22;
  });
  auto server = acceptedAt(0);
  ASSERT_NE(server, nullptr);
  const platform::AuditToken& token = server->auditToken();
  EXPECT_EQ(token.pid, child.pid());
  EXPECT_EQ(token.uid, 65534u);
  EXPECT_EQ(token.gid, 65534u);
  ASSERT_GE(token.pidfd, 0);
  // The pidfd names the same process, whatever later happens to the pid.
  std::ifstream info("/proc/self/fdinfo/" + std::to_string(token.pidfd));
  std::string line;
  std::string pidLine;
  while (std::getline(info, line)) {
    if (line.rfind("Pid:", 0) == 0) pidLine = line;
  }
  EXPECT_EQ(pidLine, "Pid:\t" + std::to_string(child.pid()));
  EXPECT_EQ(child.wait(), 0);
}

// A socket handed on (by fork, exec or SCM_RIGHTS) carries the frames of
// whoever writes on it: each is served as its own writer, and a frame two
// processes wrote between them ends the connection.
TEST_F(OvixConnection, EachFrameIsServedAsTheProcessThatWroteIt) {
  OVIX_SKIP_IF_FORK_UNSAFE();
  struct Seen {
    std::mutex mutex;
    std::vector<pid_t> pids;
  };
  auto seen = std::make_shared<Seen>();
  auto events = EventRecorder::make();
  listen("svc.writers", [seen, events](const std::shared_ptr<Connection>& c) {
    c->setEventHandler([c, seen, events](const Object& e) {
      events->record(e);
      if (!e.isDictionary()) return;
      std::lock_guard lock(seen->mutex);
      seen->pids.push_back(c->auditToken().pid);
    });
    c->resume();
  });
  auto fd = socket::connectTo(socketPathForService("svc.writers"));
  ASSERT_TRUE(fd);
  Bytes frame;
  ASSERT_TRUE(wire::encodeFrame(request("n", 1), frame));
  auto write = [&](const std::uint8_t* at, std::size_t n) {
    return ::send(fd->get(), at, n, MSG_NOSIGNAL) == static_cast<ssize_t>(n);
  };
  ASSERT_TRUE(write(frame.data(), frame.size()));
  ChildProcess child([&] { return write(frame.data(), frame.size()) ? 0 : 1; });
  const pid_t childPid = child.pid();
  ASSERT_EQ(child.wait(), 0);
  ASSERT_TRUE(write(frame.data(), frame.size()));
  for (int i = 0; i < 200; ++i) {
    std::lock_guard lock(seen->mutex);
    if (seen->pids.size() >= 3) break;
    std::this_thread::sleep_for(10ms);
  }
  {
    std::lock_guard lock(seen->mutex);
    ASSERT_EQ(seen->pids.size(), 3u);
    EXPECT_EQ(seen->pids[0], ::getpid());
    EXPECT_EQ(seen->pids[1], childPid);
    EXPECT_EQ(seen->pids[2], ::getpid());
  }

  // Half a frame from us, the rest from a child: nothing is served.
  const std::size_t half = frame.size() / 2;
  ASSERT_TRUE(write(frame.data(), half));
  std::this_thread::sleep_for(50ms);
  ChildProcess finisher([&] { return write(frame.data() + half, frame.size() - half) ? 0 : 1; });
  ASSERT_EQ(finisher.wait(), 0);
  auto server = acceptedAt(0);
  ASSERT_NE(server, nullptr);
  EXPECT_TRUE(events->waitFor(errorConnectionInvalid(), 5s));
  std::lock_guard lock(seen->mutex);
  EXPECT_EQ(seen->pids.size(), 3u);
}

}  // namespace
}  // namespace ovix
