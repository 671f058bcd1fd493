#include "vexd_helper/QLXHService.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "logging/QLXHLog.h"
#include "ovix/ClientQuota.h"
#include "ovix/Connection.h"
#include "ovix/Listener.h"
#include "ovix/Object.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "vexd_helper/QLXHMessageResponder.h"
#include "vexd_helper/QLXHServedMessage.h"

namespace {

std::mutex gListenerLock;
std::shared_ptr<ovix::Listener> gListener;  // kept for the life of the process

// One request at a time, process-wide: the responder's current connection is
// shared, so it may change only while no other client's request runs.
std::mutex gRequestLock;

[[noreturn]] void endProcess(int status) {
  if (platform::Process* process = platform::shared().process) process->exit(status);
  std::fflush(nullptr);
  std::_Exit(status);
}

// A non-dictionary message cannot arrive from the wire; if it ever does, the
// process stops here rather than guess.
[[noreturn]] void assertDictionary() {
  std::fprintf(stderr,
               "Assertion failed: (type == OVIX_TYPE_DICTIONARY), function "
               "__QLXH_handle_connection_block_invoke, file vexd_helper/vexd_helper, line 65.\n");
  std::fflush(stderr);
  std::abort();
}

void handleListenerEvent(const ovix::Object& event) {
  if (event.isConnection()) {
    QLXHLog("It's an OVIX_TYPE_CONNECTION");
    QLXHLog("Start to deal with new connection");
    QLXH_handle_connection(event.connectionValue());
    return;
  }
  if (event == ovix::errorTerminationImminent()) {
    QLXHLog("Ovix connection will be closed");
    endProcess(0);
  }
  if (event == ovix::errorConnectionInvalid()) {
    QLXHLog("No Ovix connection, exiting");
    endProcess(0);
  }
  QLXHLog("Got Ovix error on listener connection: %s", event.errorDescription());
  std::shared_ptr<ovix::Listener> listener;
  {
    std::lock_guard<std::mutex> guard(gListenerLock);
    listener = gListener;
  }
  if (listener) listener->cancel();
  endProcess(1);
}

}  // namespace

int QLXH_start_listener() {
  std::lock_guard<std::mutex> guard(gListenerLock);
  if (gListener) return 0;
  auto created = ovix::Listener::create(kQLXHServiceName);
  if (!created) {
    QLXHLog("Could not create Ovix listener.");
    endProcess(1);
  }
  gListener = *created;
  ovix::ClientQuota::shared()->setReporter(
      [](const std::string& message) { QLXHLog("%s", message.c_str()); });
  gListener->setEventHandler(handleListenerEvent);
  gListener->resume();
  return 0;
}

void QLXH_handle_connection(const std::shared_ptr<ovix::Connection>& connection) {
  if (!connection) return;
  // The handler holds its own connection; the runtime releases the handler
  // after the connection's last event.
  connection->setEventHandler([connection](const ovix::Object& event) {
    QLXHMessageResponder& responder = QLXHMessageResponder::sharedInstance();
    if (event.isError()) {
      if (event == ovix::errorConnectionInvalid()) {
        QLXHLog("Ovix disconnected by client");
        std::lock_guard<std::mutex> serving(gRequestLock);
        responder.setConnection(nullptr);
      } else if (event == ovix::errorTerminationImminent()) {
        QLXHLog("Ovix connection will be closed");
      }
      return;
    }
    QLXHLog("Received an Ovix request?");
    if (!event.isDictionary()) assertDictionary();
    QLXHLog("QLXH: Received a Ovix request");
    std::lock_guard<std::mutex> serving(gRequestLock);
    QLXHServedMessage::MessageScope served;
    responder.setConnection(connection);
    responder.handleOvixMessage(event);
    QLXHLog("Message handled");
  });
  connection->resume();
}
