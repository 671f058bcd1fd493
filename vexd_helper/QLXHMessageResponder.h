// Receives each request, checks the client's entitlement, decodes the
// request and calls the operation each key names; the only sender of replies.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "platform/Value.h"

namespace ovix {
class Connection;
class Object;
}  // namespace ovix

class QLXHMessageResponder {
 public:
  static QLXHMessageResponder& sharedInstance();

  void handleOvixMessage(const ovix::Object& message);
  bool hasEntitlementQuillexd();

  void sendPassResponse();
  void sendFailResponse();
  void sendProgress(std::int64_t percent);
  void sendData(const platform::Data& data);

  std::shared_ptr<ovix::Connection> connection() const;
  void setConnection(const std::shared_ptr<ovix::Connection>& connection);

  // Request handlers: each logs its entry line, unpacks its parameter, calls
  // one operation and answers its boolean. Defined in operations/.
  bool migratePreferencesFile(const platform::Value& parameter);
  bool prepareLogContainer(const platform::Value& parameter);
  bool prepareWorkContainer(const platform::Value& parameter);
  bool removeWorkContainer(const platform::Value& parameter);
  bool createDeviceManifest(const platform::Value& parameter);
  bool createHardLink(const platform::Value& parameter);
  bool moveStagingToFinal(const platform::Value& parameter);
  bool restoreAttributes(const platform::Value& parameter);
  bool deleteNvram(const platform::Value& parameter);
  bool writeNvram(const platform::Value& parameter);
  bool reboot(const platform::Value& parameter);
  bool quitHelper(const platform::Value& parameter);
  bool shrinkDataPartition(const platform::Value& parameter);
  bool expandDataPartition(const platform::Value& parameter);

  // A dictionary parameter's value read with a plain lookup: an absent key,
  // or a parameter that is no dictionary, gives an absent (null) value.
  static platform::Value parameterValue(const platform::Value& parameter, const char* key);

 private:
  // Weak: the responder never keeps a client's connection alive.
  mutable std::mutex connectionLock_;
  std::weak_ptr<ovix::Connection> connection_;
};
