// The frame end to end inside one process: a real listener and real client
// connections over the socket, a fake credential service, and test-only
// operations registered in the name table.
#include "vexd_helper/QLXHMessageResponder.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include "logging/QLXHLog.h"
#include "logging/QLXLogModel.h"
#include "ovix/Connection.h"
#include "ovix/Object.h"
#include "ovix/ServiceName.h"
#include "ovix/Socket.h"
#include "ovix/TestSupport.h"
#include "ovix/WireFormat.h"
#include "platform/Gatecards.h"
#include "platform/Platform.h"
#include "platform/testing/CapturedStderr.h"
#include "vexd_helper/OvixDictConv.h"
#include "vexd_helper/QLXHRequestTable.h"
#include "vexd_helper/QLXHService.h"

namespace {

using namespace std::chrono_literals;

// Grants whatever the test says to every client of this process.
class FakeGatecards : public platform::Gatecards {
 public:
  platform::Result<platform::Gatecard> createFromAuditToken(
      const platform::AuditToken& token) override {
    if (token.pid != getpid()) return platform::Error::posix(3, "not this process");
    std::lock_guard<std::mutex> guard(lock);
    platform::Gatecard card;
    card.program = "/proc/self/exe";
    card.entitlements = grants;
    return card;
  }

  void grant(std::optional<platform::Value> value) {
    std::lock_guard<std::mutex> guard(lock);
    grants = {};
    if (value) grants.set("com.velmor.private.quillex.quillexd", *value);
  }

  std::mutex lock;
  platform::Dictionary grants;
};

class FrameTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    runtimeDir_ = new std::filesystem::path(std::filesystem::temp_directory_path() /
                                            ("vexd-frame-" + std::to_string(getpid())));
    std::filesystem::create_directories(*runtimeDir_);
    setenv("OVIX_RUNTIME_DIR", runtimeDir_->c_str(), 1);
    gatecards_ = new FakeGatecards();
    platform::shared().gatecards = gatecards_;
    QLXHRequestTable::registerOperation(
        "testPass:", [](QLXHMessageResponder&, const platform::Value&) { return true; });
    QLXHRequestTable::registerOperation(
        "testFail:", [](QLXHMessageResponder&, const platform::Value&) { return false; });
    ASSERT_EQ(QLXH_start_listener(), 0);
  }

  static void TearDownTestSuite() {
    platform::shared().gatecards = nullptr;
    std::filesystem::remove_all(*runtimeDir_);
  }

  void SetUp() override {
    gatecards_->grant(platform::Value(true));
    logPath_ =
        *runtimeDir_ /
        (std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + ".log");
    logFile_ = std::fopen(logPath_.c_str(), "w");
    QLXLogModel::sharedInstance().setLogFP(logFile_);
  }

  void TearDown() override {
    // One client at a time: a disconnect clears the current connection, so
    // the next test starts only after every client of this one is gone.
    for (auto& c : clients_) c->cancel();
    for (int i = 0; i < 200 && disconnects() < clients_.size(); ++i)
      std::this_thread::sleep_for(10ms);
    clients_.clear();
    QLXLogModel::sharedInstance().setLogFP(nullptr);
    std::fclose(logFile_);
  }

  // The messages of the log file, time stamps cut off.
  std::vector<std::string> logLines() {
    std::ifstream in(logPath_);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
      lines.push_back(line.size() > 26 ? line.substr(26) : line);
    return lines;
  }

  std::size_t disconnects() {
    auto lines = logLines();
    return std::count(lines.begin(), lines.end(), "Ovix disconnected by client");
  }

  bool logged(const std::string& message) {
    for (const auto& l : logLines())
      if (l == message) return true;
    return false;
  }

  std::shared_ptr<ovix::Connection> connect() {
    auto c = ovix::Connection::connect(kQLXHServiceName);
    EXPECT_TRUE(c.ok());
    if (!c.ok()) return nullptr;
    clients_.push_back(*c);
    return *c;
  }

  // Replies until the service falls silent.
  static std::vector<std::string> replies(ovix::Connection& c,
                                          std::chrono::milliseconds quiet = 400ms) {
    std::vector<std::string> out;
    while (auto event = c.receive(quiet)) {
      if (event->isError()) break;
      out.push_back(event->description());
    }
    return out;
  }

  static ovix::Object request(std::initializer_list<std::pair<const char*, ovix::Object>> keys) {
    ovix::Object m = ovix::Object::makeDictionary();
    for (const auto& [k, v] : keys) m.set(k, v);
    return m;
  }

  static std::string pass() { return reply(true); }
  static std::string fail() { return reply(false); }
  static std::string reply(bool ok) {
    ovix::Object m = ovix::Object::makeDictionary();
    m.setBool("Response", ok);
    return m.description();
  }

  static inline std::filesystem::path* runtimeDir_;
  static inline FakeGatecards* gatecards_;
  std::filesystem::path logPath_;
  std::FILE* logFile_ = nullptr;
  std::vector<std::shared_ptr<ovix::Connection>> clients_;
};

TEST_F(FrameTest, UnentitledClientsGetSilenceAndTheServiceGoesOn) {
  const ovix::Object one = ovix::Object::makeInt64(1);
  struct Case {
    std::optional<platform::Value> grant;
    std::string message;
  } cases[] = {
      {std::nullopt, "-[QLXHMessageResponder hasEntitlementQuillexd]: No data received."},
      {platform::Value(false), ""},
      {platform::Value("yes"),
       "-[QLXHMessageResponder hasEntitlementQuillexd]: format not correct: yes"},
      {platform::Value(1), "-[QLXHMessageResponder hasEntitlementQuillexd]: format not correct: 1"},
  };
  for (const Case& c : cases) {
    gatecards_->grant(c.grant);
    auto client = connect();
    ASSERT_TRUE(client->send(request({{"testPass:", one}})));
    EXPECT_TRUE(replies(*client).empty());
    if (!c.message.empty()) {
      EXPECT_TRUE(logged(c.message)) << c.message;
    }
    EXPECT_TRUE(logged("The client does not have proper entitlement"));
  }
  gatecards_->grant(platform::Value(true));
  auto client = connect();
  ASSERT_TRUE(client->send(request({{"testPass:", one}})));
  EXPECT_EQ(replies(*client), std::vector<std::string>{pass()});
}

TEST_F(FrameTest, KeysAreServedInOrderUntilOneNamesNothing) {
  const ovix::Object v = ovix::Object::makeString("x");
  auto client = connect();
  ASSERT_TRUE(client->send(request({{"testPass:", v}, {"testFail:", v}})));
  EXPECT_EQ(replies(*client), (std::vector<std::string>{pass(), fail()}));

  ASSERT_TRUE(client->send(ovix::Object::makeDictionary()));
  EXPECT_TRUE(replies(*client).empty());

  ASSERT_TRUE(client->send(request({{"testFail:", v}, {"noSuchRequest:", v}, {"testPass:", v}})));
  EXPECT_EQ(replies(*client), std::vector<std::string>{fail()});
  EXPECT_TRUE(logged("QLXHMessageResponder does not respond to noSuchRequest:."));

  ASSERT_TRUE(client->send(request({{"", v}, {"testPass:", v}})));
  EXPECT_TRUE(replies(*client).empty());
  EXPECT_TRUE(logged("selector is nil for "));
}

TEST_F(FrameTest, OtherPublicOperationsAreCalledByName) {
  auto client = connect();
  // sendPassResponse answers itself; its missing result then reads as NO.
  ASSERT_TRUE(client->send(request({{"sendPassResponse", ovix::Object::makeBool(true)}})));
  EXPECT_EQ(replies(*client), (std::vector<std::string>{pass(), fail()}));

  ovix::Object progress = ovix::Object::makeDictionary();
  progress.setInt64("Progress", 42);
  ASSERT_TRUE(client->send(request({{"sendProgress:", ovix::Object::makeInt64(42)}})));
  EXPECT_EQ(replies(*client), (std::vector<std::string>{progress.description(), fail()}));

  ASSERT_TRUE(client->send(request({{"hasEntitlementQuillexd", ovix::Object::makeBool(true)}})));
  EXPECT_EQ(replies(*client), std::vector<std::string>{pass()});
}

TEST_F(FrameTest, RequestLinesAreLoggedInOrder) {
  QLXHRequestTable::registerOperation(
      "testEntry:", [](QLXHMessageResponder&, const platform::Value& parameter) {
        QLXHLog("Entering %s with parameter: %@", "-[QLXHMessageResponder testEntry:]", parameter);
        return true;
      });
  auto client = connect();
  ASSERT_TRUE(client->send(request({{"testEntry:", ovix::Object::makeString("/var/x")}})));
  EXPECT_EQ(replies(*client), std::vector<std::string>{pass()});
  std::vector<std::string> lines = logLines();
  std::vector<std::string> expected = {
      "Received an Ovix request?", "QLXH: Received a Ovix request",
      "Entering -[QLXHMessageResponder testEntry:] with parameter: /var/x", "Message handled"};
  auto first = std::find(lines.begin(), lines.end(), expected[0]);
  ASSERT_NE(first, lines.end());
  EXPECT_EQ(
      std::vector<std::string>(first, first + std::min<std::ptrdiff_t>(4, lines.end() - first)),
      expected);
}

TEST_F(FrameTest, ADisconnectClearsTheCurrentConnection) {
  auto client = connect();
  ASSERT_TRUE(client->send(request({{"testPass:", ovix::Object::makeBool(true)}})));
  EXPECT_EQ(replies(*client), std::vector<std::string>{pass()});
  EXPECT_NE(QLXHMessageResponder::sharedInstance().connection(), nullptr);
  client->cancel();
  for (int i = 0; i < 100 && QLXHMessageResponder::sharedInstance().connection(); ++i)
    std::this_thread::sleep_for(20ms);
  EXPECT_TRUE(logged("It's an OVIX_TYPE_CONNECTION"));
  EXPECT_TRUE(logged("Start to deal with new connection"));
  EXPECT_TRUE(logged("Ovix disconnected by client"));
  EXPECT_EQ(QLXHMessageResponder::sharedInstance().connection(), nullptr);
  // With no one to answer, sending is a quiet no-op.
  QLXHMessageResponder::sharedInstance().sendPassResponse();
  QLXHMessageResponder::sharedInstance().sendData({1, 2});
}

// Another client's connect, request or disconnect while a request runs must
// neither take its replies nor clear where they go.
TEST_F(FrameTest, OtherClientsCannotTakeOrEraseARunningRequestsReplies) {
  QLXHRequestTable::registerOperation("testSlow:",
                                      [](QLXHMessageResponder& responder, const platform::Value&) {
                                        responder.sendProgress(10);
                                        std::this_thread::sleep_for(300ms);
                                        responder.sendProgress(90);
                                        return true;
                                      });
  auto slow = connect();
  ASSERT_TRUE(slow->send(request({{"testSlow:", ovix::Object::makeBool(true)}})));
  std::this_thread::sleep_for(50ms);
  auto other = connect();
  ASSERT_TRUE(other->send(request({{"testPass:", ovix::Object::makeBool(true)}})));
  auto leaving = connect();
  leaving->cancel();
  ovix::Object early = ovix::Object::makeDictionary();
  early.setInt64("Progress", 10);
  ovix::Object late = ovix::Object::makeDictionary();
  late.setInt64("Progress", 90);
  EXPECT_EQ(replies(*slow),
            (std::vector<std::string>{early.description(), late.description(), pass()}));
  EXPECT_EQ(replies(*other), std::vector<std::string>{pass()});
}

// A child given the entitled client's socket (here by fork) writes as
// itself: its request gets silence; the parent's own are still served.
TEST_F(FrameTest, ASocketHandedToAnotherProcessServesOnlyItsEntitledWriter) {
  OVIX_SKIP_IF_FORK_UNSAFE();
  auto fd = ovix::socket::connectTo(ovix::socketPathForService(kQLXHServiceName));
  ASSERT_TRUE(fd);
  ovix::Bytes frame;
  ASSERT_TRUE(
      ovix::wire::encodeFrame(request({{"testPass:", ovix::Object::makeBool(true)}}), frame));
  auto write = [&] {
    return ::send(fd->get(), frame.data(), frame.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(frame.size());
  };
  // The reply's bytes, if any arrive within the quiet time.
  auto reply = [&](int quietMs) {
    std::string got;
    pollfd p{fd->get(), POLLIN, 0};
    std::uint8_t buffer[256];
    while (::poll(&p, 1, quietMs) == 1) {
      const ssize_t n = ::recv(fd->get(), buffer, sizeof buffer, 0);
      if (n <= 0) break;
      got.append(reinterpret_cast<char*>(buffer), static_cast<std::size_t>(n));
    }
    return got;
  };
  ovix::testing::ChildProcess child([&] { return write() ? 0 : 1; });
  ASSERT_EQ(child.wait(), 0);
  EXPECT_EQ(reply(400), "");
  EXPECT_TRUE(logged("The client does not have proper entitlement"));
  ASSERT_TRUE(write());
  ovix::Bytes expected;
  ovix::Object passed = ovix::Object::makeDictionary();
  passed.setBool("Response", true);
  ASSERT_TRUE(ovix::wire::encodeFrame(passed, expected));
  EXPECT_EQ(reply(400), std::string(expected.begin(), expected.end()));
  fd->reset();
  // TearDown waits for one disconnect per client it knows.
  for (int i = 0; i < 100 && disconnects() == 0; ++i) std::this_thread::sleep_for(10ms);
}

TEST_F(FrameTest, SecondListenerStartChangesNothing) {
  EXPECT_EQ(QLXH_start_listener(), 0);
  auto client = connect();
  ASSERT_TRUE(client->send(request({{"testPass:", ovix::Object::makeBool(true)}})));
  EXPECT_EQ(replies(*client), std::vector<std::string>{pass()});
}

TEST(OvixDictConvTest, OnlyStringsBooleansIntegersAndDictionariesSurvive) {
  QLXLogModel::sharedInstance().setLogFP(nullptr);
  ovix::Object nested = ovix::Object::makeDictionary();
  nested.setString("Path", "/private/var");
  nested.setDouble("Ratio", 0.5);
  nested.setBool("Inclusive", true);
  ovix::Object message = ovix::Object::makeDictionary();
  message.set("createDeviceManifest:", nested);
  message.setData("blob", "ab", 2);
  message.set("list", ovix::Object::makeArray());
  message.setDate("when", 0);
  message.set("none", ovix::Object::makeNull());
  message.setUuid("id", ovix::Uuid{});
  message.setUInt64("big", 7);
  message.setInt64("count", -3);
  message.setString("name", "x");

  std::optional<platform::Dictionary> decoded;
  std::string console = platform::testing::capturedStderr(
      [&] { decoded = ovixdictConv::dictionaryWithOvixDictionary(message); });
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->keys(), (std::vector<std::string>{"createDeviceManifest:", "count", "name"}));
  const platform::Dictionary* inner = decoded->find("createDeviceManifest:")->dictionary();
  ASSERT_NE(inner, nullptr);
  EXPECT_EQ(inner->keys(), (std::vector<std::string>{"Path", "Inclusive"}));
  EXPECT_TRUE(inner->find("Inclusive")->isBoolean());
  EXPECT_EQ(decoded->find("count")->int64Value(), -3);
  for (const char* key : {"Ratio", "blob", "list", "when", "none", "id", "big"})
    EXPECT_NE(console.find(std::string("The value for key ") + key +
                           " has a type that is not supported yet"),
              std::string::npos)
        << key;

  EXPECT_FALSE(ovixdictConv::dictionaryWithOvixDictionary(ovix::Object::makeString("x")));
  EXPECT_FALSE(ovixdictConv::createOvixDictionary(*decoded));
}

}  // namespace
