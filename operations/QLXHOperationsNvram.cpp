// Firmware variables, restart and quit.
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "logging/QLXHLog.h"
#include "operations/QLXHOperations.h"
#include "platform/HardwareRegistry.h"
#include "platform/Platform.h"
#include "platform/Process.h"

namespace {

constexpr const char* kDeleteProperty = "IONVRAM-DELETE-PROPERTY";
constexpr const char* kSyncNowProperty = "IONVRAM-SYNCNOW-PROPERTY";

// The registry and its options node, or nothing after logging why not.
std::optional<platform::RegistryNode> optionsNode(platform::HardwareRegistry* registry,
                                                  const std::string& path) {
  if (!registry) {
    QLXHLog("Couldn't locate bootstrap_port mach port");
    return std::nullopt;
  }
  auto node = registry->lookUp(path);
  if (!node) {
    QLXHLog("Couldn't locate options node in IODeviceTree");
    return std::nullopt;
  }
  return *node;
}

}  // namespace

bool QLXHOperations::deleteNvram(const platform::Value& name) {
  platform::HardwareRegistry* registry = platform_.hardwareRegistry;
  auto node = optionsNode(registry, paths_.firmwareOptionsNode);
  if (!node) return false;
  // The delete shares the commit's message: there is no message of its own.
  if (!registry->setProperty(*node, kDeleteProperty, name)) {
    QLXHLog("Couldn't force sync new nvram to device");
    return false;
  }
  return true;
}

bool QLXHOperations::writeNVRam(const platform::Value& name, const platform::Value& value) {
  platform::HardwareRegistry* registry = platform_.hardwareRegistry;
  auto node = optionsNode(registry, paths_.firmwareOptionsNode);
  if (!node) return false;
  // Only text names a variable and only text has UTF-8 bytes; anything
  // else a request carries fails the write like a refused property would.
  const std::string* text = value.string();
  if (!name.string() || !text ||
      !registry->setProperty(*node, *name.string(), platform::Data(text->begin(), text->end()))) {
    QLXHLog("Couldn't write nvram");
    return false;
  }
  if (!registry->setProperty(*node, kSyncNowProperty, name)) {
    QLXHLog("Couldn't force sync new nvram to device");
    return false;
  }
  return true;
}

bool QLXHOperations::reboot() {
  if (platform::Process* process = platform_.process) process->reboot();
  return false;
}

void QLXHOperations::quitHelper() {
  if (platform::Process* process = platform_.process) process->exit(0);
  std::fflush(nullptr);
  std::_Exit(0);
}
