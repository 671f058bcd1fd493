#include "platform/linux/ProcStatus.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace platform {

std::optional<std::string> procStatusField(const std::string& text, const std::string& field) {
  std::string key = field + ":";
  std::size_t at = text.starts_with(key) ? 0 : text.find("\n" + key);
  if (at == std::string::npos) return std::nullopt;
  at = text.find(':', at) + 1;
  std::size_t end = text.find('\n', at);
  return text.substr(at, end == std::string::npos ? std::string::npos : end - at);
}

std::optional<long> procStatusPid(const std::string& text) {
  auto field = procStatusField(text, "Pid");
  if (!field) return std::nullopt;
  char* end = nullptr;
  long pid = std::strtol(field->c_str(), &end, 10);
  if (end == field->c_str()) return std::nullopt;
  return pid;
}

std::optional<std::vector<std::uint32_t>> procStatusGroups(const std::string& text) {
  auto field = procStatusField(text, "Groups");
  if (!field) return std::nullopt;
  std::vector<std::uint32_t> groups;
  const char* at = field->c_str();
  for (;;) {
    while (*at == ' ' || *at == '\t') ++at;
    if (*at == '\0') return groups;
    // Only plain decimal IDs: strtoul would wrap "-1" or cut a wider number,
    // naming a group the process is not in.
    if (*at < '0' || *at > '9') return std::nullopt;
    char* end = nullptr;
    errno = 0;
    unsigned long gid = std::strtoul(at, &end, 10);
    if (errno != 0 || gid > UINT32_MAX) return std::nullopt;
    groups.push_back(static_cast<std::uint32_t>(gid));
    at = end;
  }
}

}  // namespace platform
