// libFuzzer target: bytes a client writes, decoded as one request frame and
// dispatched through the responder, over a real connection of this process.
// Every request key is a fake operation, so nothing is done to the machine.
//
// The first byte picks the client's grant. Whatever the request holds, an
// operation runs only for a client whose entitlement is exactly true, and
// every operation that ran is answered.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <random>
#include <span>
#include <string>

#include "ovix/Connection.h"
#include "ovix/Listener.h"
#include "ovix/WireFormat.h"
#include "platform/Gatecards.h"
#include "platform/Platform.h"
#include "vexd_helper/QLXHMessageResponder.h"
#include "vexd_helper/QLXHRequestTable.h"

namespace {

constexpr const char* kEntitlement = "com.velmor.private.quillex.quillexd";

const char* const kRequestKeys[] = {
    "migratePreferencesFile:",
    "prepareLogContainer:",
    "prepareWorkContainer:",
    "removeWorkContainer:",
    "createDeviceManifest:",
    "createHardLink:",
    "moveStagingToFinal:",
    "deleteNvram:",
    "writeNvram:",
    "reboot:",
    "quitHelper:",
    "restoreAttributes:",
    "shrinkDataPartition:",
    "expandDataPartition:",
};

// The grant of the current input, whatever connection asks.
class FuzzGatecards : public platform::Gatecards {
 public:
  platform::Result<platform::Gatecard> createFromAuditToken(const platform::AuditToken&) override {
    if (mode == 0) return platform::Error::posix(3, "no such process");
    platform::Gatecard card;
    card.program = "/usr/bin/fuzz-client";
    if (mode == 2) card.entitlements.set(kEntitlement, platform::Value("true"));
    if (mode == 3) card.entitlements.set(kEntitlement, platform::Value(false));
    if (mode == 4) card.entitlements.set(kEntitlement, platform::Value(std::int64_t{1}));
    if (mode >= 5) card.entitlements.set(kEntitlement, platform::Value(true));
    return card;
  }
  int mode = 0;
};

FuzzGatecards* gatecards = nullptr;
std::shared_ptr<ovix::Connection> serverSide;
std::shared_ptr<ovix::Connection> clientSide;
std::atomic<std::uint64_t> operationsRun{0};

// Reads its parameter the way the real handlers do, answers from its content
// and sometimes reports progress or data first.
bool fakeOperation(QLXHMessageResponder& responder, const platform::Value& parameter) {
  ++operationsRun;
  std::string text = parameter.description();
  for (const char* key : {"Path", "StagingRootPath", "ManifestPath", "Name", "Value", "Size"}) {
    platform::Value v = QLXHMessageResponder::parameterValue(parameter, key);
    text += v.description();
    (void)v.int64Value();
    (void)v.boolValue();
  }
  if (text.size() % 7 == 0) responder.sendProgress(static_cast<std::int64_t>(text.size()));
  if (text.size() % 11 == 0) responder.sendData(platform::Data(text.begin(), text.end()));
  return text.size() % 2 == 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::random_device random;
  auto dir =
      std::filesystem::temp_directory_path() / ("vexd-dispatch-fuzz-" + std::to_string(random()));
  std::filesystem::create_directories(dir);
  static std::filesystem::path runtimeDir = dir;
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(runtimeDir, ignored);
  });
  setenv("OVIX_RUNTIME_DIR", dir.c_str(), 1);

  gatecards = new FuzzGatecards();
  platform::shared().gatecards = gatecards;
  for (const char* key : kRequestKeys) QLXHRequestTable::registerOperation(key, fakeOperation);

  // One connection of this process to itself: the service side is the
  // responder's current connection, the client side drops every reply.
  static std::mutex lock;
  static std::condition_variable accepted;
  auto listener = ovix::Listener::create("com.velmor.fuzz.dispatch");
  if (!listener) std::abort();
  static std::shared_ptr<ovix::Listener> keep = *listener;
  keep->setEventHandler([](const ovix::Object& event) {
    if (!event.isConnection()) return;
    auto connection = event.connectionValue();
    connection->setEventHandler([](const ovix::Object&) {});
    connection->resume();
    std::lock_guard<std::mutex> guard(lock);
    serverSide = connection;
    accepted.notify_all();
  });
  keep->resume();
  auto client = ovix::Connection::connect("com.velmor.fuzz.dispatch");
  if (!client) std::abort();
  clientSide = *client;
  clientSide->setEventHandler([](const ovix::Object&) {});
  clientSide->resume();
  std::unique_lock<std::mutex> guard(lock);
  accepted.wait(guard, [] { return serverSide != nullptr; });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  gatecards->mode = data[0] % 8;
  ovix::wire::DecodeResult decoded = ovix::wire::decodeFrame(std::span(data + 1, size - 1));
  if (!decoded.message || !decoded.message->isDictionary()) return 0;

  QLXHMessageResponder& responder = QLXHMessageResponder::sharedInstance();
  const std::uint64_t before = operationsRun;
  responder.setConnection(serverSide);
  responder.handleOvixMessage(*decoded.message);
  responder.setConnection(nullptr);
  // Only a grant of exactly true lets any operation run.
  if (gatecards->mode < 5 && operationsRun != before) std::abort();
  return 0;
}
