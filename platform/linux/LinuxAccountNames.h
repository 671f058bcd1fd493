// Account names for user and group IDs, both ways. Attribute reads ask for
// the same few owners thousands of times in one walk, and each lookup reads
// the account files, so answers are kept for a few seconds.
#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace platform {

class LinuxAccountNames {
 public:
  std::optional<std::string> userName(std::uint32_t uid);
  std::optional<std::string> groupName(std::uint32_t gid);
  std::optional<std::uint32_t> userID(const std::string& name);
  std::optional<std::uint32_t> groupID(const std::string& name);

 private:
  struct Entry {
    std::optional<std::string> name;
    std::chrono::steady_clock::time_point when;
  };
  using Map = std::unordered_map<std::uint32_t, Entry>;
  std::optional<std::string> cached(Map& map, std::uint32_t id,
                                    std::optional<std::string> (*lookup)(std::uint32_t));

  std::mutex lock_;
  Map users_;
  Map groups_;
};

}  // namespace platform
