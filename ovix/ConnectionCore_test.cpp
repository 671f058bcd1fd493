// What a peer that breaks the protocol can do to the service: end its own
// connection, nothing more.
#include "ovix/ConnectionCore.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ovix/Connection.h"
#include "ovix/Listener.h"
#include "ovix/TestSupport.h"
#include "ovix/WireFormat.h"

namespace ovix {
namespace {

using namespace std::chrono_literals;
using testing::EventRecorder;

// A client that writes raw bytes, as a broken or hostile peer would.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : fd_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~RawClient() { ::close(fd_); }
  bool connected() const { return connected_; }

  void write(const Bytes& bytes) {
    ASSERT_EQ(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
  }
  void endWriting() { ::shutdown(fd_, SHUT_WR); }

  Bytes read(std::size_t n) {
    Bytes got(n);
    std::size_t have = 0;
    while (have < n) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 5000) != 1) break;
      const ssize_t r = ::recv(fd_, got.data() + have, n - have, 0);
      if (r <= 0) break;
      have += static_cast<std::size_t>(r);
    }
    got.resize(have);
    return got;
  }

  // True when the service closed its end within the timeout (an echo of
  // what came before may still arrive first).
  bool closedByService(std::chrono::milliseconds timeout = 5s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{fd_, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) != 1) return false;
      char buffer[4096];
      if (::recv(fd_, buffer, sizeof buffer, 0) <= 0) return true;
    }
  }

 private:
  int fd_;
  bool connected_ = false;
};

Bytes frameWithPayload(const Bytes& payload) {
  Bytes f = {'O', 'V', 'X', 'F', 1, 0, 0, 0};
  for (int i = 0; i < 4; ++i) f.push_back(static_cast<std::uint8_t>(payload.size() >> (8 * i)));
  f.insert(f.end(), payload.begin(), payload.end());
  return f;
}

Bytes goodFrame() {
  Object m = Object::makeDictionary();
  m.setBool("ping", true);
  Bytes f;
  wire::encodeFrame(m, f);
  return f;
}

// {"k": {"k": ...}} one level deeper than allowed.
Bytes tooDeepFrame() {
  Bytes payload;
  for (int i = 0; i < wire::kMaxDepth; ++i) {
    payload.insert(payload.end(), {1, 0, 0, 0, 1, 0, 0, 0, 'k', 0x0A});
  }
  payload.insert(payload.end(), {0, 0, 0, 0});
  return frameWithPayload(payload);
}

class OvixBadFrames : public ::testing::Test {
 protected:
  void SetUp() override {
    auto l = Listener::create("svc.bad");
    ASSERT_TRUE(l) << l.error().description;
    listener_ = *l;
    auto ends = ends_;
    auto pings = pings_;
    listener_->setEventHandler([ends, pings](const Object& event) {
      auto c = event.connectionValue();
      if (!c) return;
      c->setEventHandler([c, ends, pings](const Object& e) {
        if (e.isDictionary()) c->send(e);
        if (e.getBool("ping")) pings->record(e);
        if (e == errorConnectionInvalid()) ends->record(e);
      });
      c->resume();
    });
    listener_->resume();
  }

  // A well-behaved client still gets its answers.
  static void expectServed(Connection& c) {
    Object m = Object::makeDictionary();
    m.setString("still", "here");
    ASSERT_TRUE(c.send(m));
    auto back = c.receive(5s);
    ASSERT_TRUE(back);
    EXPECT_EQ(*back, m);
  }

  testing::ScopedRuntimeDirectory dir_;
  std::shared_ptr<EventRecorder> ends_ = EventRecorder::make();
  std::shared_ptr<EventRecorder> pings_ = EventRecorder::make();
  std::shared_ptr<Listener> listener_;
};

TEST_F(OvixBadFrames, EachEndsOnlyItsOwnConnection) {
  auto good = Connection::connect("svc.bad");
  ASSERT_TRUE(good);
  expectServed(**good);

  const Bytes valid = goodFrame();
  Bytes wrongMagic = valid;
  wrongMagic[1] = 'W';
  Bytes wrongVersion = valid;
  wrongVersion[4] = 9;
  Bytes badUtf8 = frameWithPayload({1, 0, 0, 0, 2, 0, 0, 0, 0xC3, 0x28, 0x00});
  // Announces the largest payload plus one; no payload follows.
  Bytes oversized = {'O', 'V', 'X', 'F', 1, 0, 0, 0, 0x01, 0x00, 0x00, 0x01};
  Bytes truncated(valid.begin(), valid.end() - 3);
  Bytes garbage(4096, 0xAB);

  struct Case {
    const char* name;
    Bytes bytes;
    bool endWriting;
  };
  const std::vector<Case> cases = {
      {"truncated", truncated, true},
      {"oversized", oversized, false},
      {"too deep", tooDeepFrame(), false},
      {"wrong magic", wrongMagic, false},
      {"wrong version", wrongVersion, false},
      {"invalid UTF-8", badUtf8, false},
      {"garbage", garbage, false},
  };
  std::size_t ended = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    RawClient raw(listener_->socketPath());
    ASSERT_TRUE(raw.connected());
    // A good frame first: what came before the bad one is still served.
    raw.write(valid);
    raw.write(c.bytes);
    if (c.endWriting) raw.endWriting();
    EXPECT_TRUE(raw.closedByService());
    ASSERT_TRUE(ends_->waitForCount(++ended));
    expectServed(**good);
  }
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(ends_->events().size(), cases.size()) << "one end per broken connection";
  EXPECT_EQ(pings_->events().size(), cases.size()) << "each good frame before a bad one";
  auto fresh = Connection::connect("svc.bad");
  ASSERT_TRUE(fresh);
  expectServed(**fresh);
}

TEST_F(OvixBadFrames, AValidFrameTricklingInByteByByteIsStillOneMessage) {
  RawClient raw(listener_->socketPath());
  ASSERT_TRUE(raw.connected());
  const Bytes valid = goodFrame();
  for (std::uint8_t b : valid) {
    raw.write(Bytes{b});
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(raw.read(valid.size()), valid) << "echoed whole";
  EXPECT_TRUE(ends_->events().empty());
}

}  // namespace
}  // namespace ovix
