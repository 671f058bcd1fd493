// libFuzzer target: the kernel's text files the service parses, the mount
// table (/proc/self/mountinfo) and status-like files (/proc/PID/status,
// fdinfo). The first byte picks the parser.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/linux/MountTable.h"
#include "platform/linux/ProcStatus.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  if (data[0] & 1) {
    for (const auto& line : platform::parseMountInfo(text))
      if (line.fileSystemType.empty()) std::abort();
  } else {
    (void)platform::procStatusPid(text);
    (void)platform::procStatusGroups(text);
    (void)platform::procStatusField(text, "Uid");
  }
  return 0;
}
