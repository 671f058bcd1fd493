#include "vexd_helper/QLXHRequestTable.h"

#include <map>
#include <mutex>
#include <string>

#include "vexd_helper/QLXHMessageResponder.h"

namespace QLXHRequestTable {
namespace {

using R = QLXHMessageResponder;
using V = platform::Value;

// An operation that answers nothing reads as NO.
std::map<std::string, Operation, std::less<>> makeTable() {
  return {
      // Request handlers.
      {"migratePreferencesFile:", &R::migratePreferencesFile},
      {"prepareLogContainer:", &R::prepareLogContainer},
      {"prepareWorkContainer:", &R::prepareWorkContainer},
      {"removeWorkContainer:", &R::removeWorkContainer},
      {"createDeviceManifest:", &R::createDeviceManifest},
      {"createHardLink:", &R::createHardLink},
      {"moveStagingToFinal:", &R::moveStagingToFinal},
      {"deleteNvram:", &R::deleteNvram},
      {"writeNvram:", &R::writeNvram},
      {"reboot:", &R::reboot},
      {"quitHelper:", &R::quitHelper},
      {"restoreAttributes:", &R::restoreAttributes},
      {"shrinkDataPartition:", &R::shrinkDataPartition},
      {"expandDataPartition:", &R::expandDataPartition},
      // Other public operations of the responder.
      {"handleOvixMessage:", [](R&, const V&) { return false; }},
      {"hasEntitlementQuillexd", [](R& r, const V&) { return r.hasEntitlementQuillexd(); }},
      {"sendPassResponse", [](R& r, const V&) { return r.sendPassResponse(), false; }},
      {"sendFailResponse", [](R& r, const V&) { return r.sendFailResponse(), false; }},
      {"sendProgress:", [](R& r, const V& v) { return r.sendProgress(v.int64Value()), false; }},
      {"sendData:",
       [](R& r, const V& v) { return r.sendData(v.data() ? *v.data() : platform::Data{}), false; }},
      {"connection", [](R& r, const V&) { return r.connection() != nullptr; }},
      {"setConnection:", [](R& r, const V&) { return r.setConnection(nullptr), false; }},
  };
}

std::mutex& tableLock() {
  static std::mutex lock;
  return lock;
}

std::map<std::string, Operation, std::less<>>& table() {
  static auto* t = new std::map<std::string, Operation, std::less<>>(makeTable());
  return *t;
}

}  // namespace

const Operation* lookup(std::string_view name) {
  std::lock_guard<std::mutex> guard(tableLock());
  auto it = table().find(name);
  return it == table().end() ? nullptr : &it->second;
}

void registerOperation(std::string_view name, Operation operation) {
  std::lock_guard<std::mutex> guard(tableLock());
  table()[std::string(name)] = std::move(operation);
}

}  // namespace QLXHRequestTable
