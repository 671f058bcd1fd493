#include "vexd_helper/QLXHMessageResponder.h"

#include "logging/QLXHLog.h"
#include "ovix/Connection.h"
#include "ovix/Object.h"
#include "platform/Gatecards.h"
#include "platform/Platform.h"
#include "vexd_helper/OvixDictConv.h"
#include "vexd_helper/QLXHRequestTable.h"
#include "vexd_helper/QLXHServedMessage.h"

namespace {

constexpr const char* kEntitlement = "com.velmor.private.quillex.quillexd";
constexpr const char* kEntitlementMethod = "-[QLXHMessageResponder hasEntitlementQuillexd]";

}  // namespace

QLXHMessageResponder& QLXHMessageResponder::sharedInstance() {
  static QLXHMessageResponder* instance = new QLXHMessageResponder();
  return *instance;
}

std::shared_ptr<ovix::Connection> QLXHMessageResponder::connection() const {
  std::lock_guard<std::mutex> guard(connectionLock_);
  return connection_.lock();
}

void QLXHMessageResponder::setConnection(const std::shared_ptr<ovix::Connection>& connection) {
  std::lock_guard<std::mutex> guard(connectionLock_);
  connection_ = connection;
}

void QLXHMessageResponder::handleOvixMessage(const ovix::Object& message) {
  if (!hasEntitlementQuillexd()) {
    QLXHLog("The client does not have proper entitlement");
    return;
  }
  std::optional<platform::Dictionary> request = ovixdictConv::dictionaryWithOvixDictionary(message);
  if (!request) return;
  for (const auto& [key, value] : *request) {
    // An empty key cannot name an operation at all.
    if (key.empty()) {
      QLXHLog("selector is nil for %@", key);
      return;
    }
    const QLXHRequestTable::Operation* operation = QLXHRequestTable::lookup(key);
    if (!operation) {
      QLXHLog("%@ does not respond to %@.", "QLXHMessageResponder", key);
      return;
    }
    QLXHServedMessage::RequestScope served(key);
    if ((*operation)(*this, value))
      sendPassResponse();
    else
      sendFailResponse();
  }
}

bool QLXHMessageResponder::hasEntitlementQuillexd() {
  std::shared_ptr<ovix::Connection> current = connection();
  platform::Gatecards* gatecards = platform::shared().gatecards;
  std::optional<platform::Gatecard> gatecard;
  if (current && gatecards) {
    auto made = gatecards->createFromAuditToken(current->auditToken());
    if (made) gatecard = std::move(*made);
  }
  if (!gatecard) {
    QLXHLog("%s: Cannot create Gatecard from audit token", kEntitlementMethod);
    return false;
  }
  std::optional<platform::Value> value = gatecard->valueForEntitlement(kEntitlement);
  if (!value) {
    QLXHLog("%s: No data received.", kEntitlementMethod);
    return false;
  }
  if (!value->isBoolean()) {
    QLXHLog("%s: format not correct: %@", kEntitlementMethod, *value);
    return false;
  }
  return value->boolValue();
}

namespace {

void sendOne(const std::shared_ptr<ovix::Connection>& connection, ovix::Object message) {
  // With no current connection there is no one to answer: nothing is sent.
  if (connection) connection->send(message);
}

}  // namespace

void QLXHMessageResponder::sendPassResponse() {
  ovix::Object message = ovix::Object::makeDictionary();
  message.setBool("Response", true);
  sendOne(connection(), std::move(message));
}

void QLXHMessageResponder::sendFailResponse() {
  ovix::Object message = ovix::Object::makeDictionary();
  message.setBool("Response", false);
  sendOne(connection(), std::move(message));
}

void QLXHMessageResponder::sendProgress(std::int64_t percent) {
  ovix::Object message = ovix::Object::makeDictionary();
  message.setInt64("Progress", percent);
  sendOne(connection(), std::move(message));
}

void QLXHMessageResponder::sendData(const platform::Data& data) {
  ovix::Object message = ovix::Object::makeDictionary();
  message.setData("Data", data.data(), data.size());
  sendOne(connection(), std::move(message));
}

platform::Value QLXHMessageResponder::parameterValue(const platform::Value& parameter,
                                                     const char* key) {
  const platform::Dictionary* d = parameter.dictionary();
  const platform::Value* v = d ? d->find(key) : nullptr;
  return v ? *v : platform::Value();
}
