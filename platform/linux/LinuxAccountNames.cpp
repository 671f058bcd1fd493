#include "platform/linux/LinuxAccountNames.h"

#include <grp.h>
#include <pwd.h>

#include <cerrno>
#include <utility>
#include <vector>

namespace platform {

namespace {

// Long enough that one walk pays for each owner once, short enough that an
// account added while the service runs is seen almost at once.
constexpr auto kLifetime = std::chrono::seconds(2);

// getpw*_r and getgr*_r want a buffer large enough for the whole record;
// ERANGE means try again with more. take() reads the record while the
// buffer it points into is still alive.
template <class Record, class Call, class Take>
auto lookupRecord(Call call, Take take) -> std::optional<decltype(take(std::declval<Record&>()))> {
  Record record{};
  std::vector<char> buf(1024);
  for (;;) {
    Record* found = nullptr;
    int err = call(&record, buf.data(), buf.size(), &found);
    if (err == ERANGE && buf.size() < (1u << 20)) {
      buf.resize(buf.size() * 4);
      continue;
    }
    if (err != 0 || found == nullptr) return std::nullopt;
    return take(record);
  }
}

std::optional<std::string> lookupUserName(std::uint32_t uid) {
  return lookupRecord<passwd>(
      [&](passwd* r, char* b, std::size_t n, passwd** f) { return ::getpwuid_r(uid, r, b, n, f); },
      [](passwd& r) { return std::string(r.pw_name); });
}

std::optional<std::string> lookupGroupName(std::uint32_t gid) {
  return lookupRecord<group>(
      [&](group* r, char* b, std::size_t n, group** f) { return ::getgrgid_r(gid, r, b, n, f); },
      [](group& r) { return std::string(r.gr_name); });
}

}  // namespace

std::optional<std::string> LinuxAccountNames::cached(
    Map& map, std::uint32_t id, std::optional<std::string> (*lookup)(std::uint32_t)) {
  auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard<std::mutex> guard(lock_);
    auto it = map.find(id);
    if (it != map.end() && now - it->second.when < kLifetime) return it->second.name;
  }
  auto name = lookup(id);
  std::lock_guard<std::mutex> guard(lock_);
  // Bounded: a tree with many distinct owners only costs lookups, not memory.
  if (map.size() > 4096) map.clear();
  map[id] = Entry{name, now};
  return name;
}

std::optional<std::string> LinuxAccountNames::userName(std::uint32_t uid) {
  return cached(users_, uid, &lookupUserName);
}

std::optional<std::string> LinuxAccountNames::groupName(std::uint32_t gid) {
  return cached(groups_, gid, &lookupGroupName);
}

std::optional<std::uint32_t> LinuxAccountNames::userID(const std::string& name) {
  return lookupRecord<passwd>([&](passwd* r, char* b, std::size_t n,
                                  passwd** f) { return ::getpwnam_r(name.c_str(), r, b, n, f); },
                              [](passwd& r) { return static_cast<std::uint32_t>(r.pw_uid); });
}

std::optional<std::uint32_t> LinuxAccountNames::groupID(const std::string& name) {
  return lookupRecord<group>([&](group* r, char* b, std::size_t n,
                                 group** f) { return ::getgrnam_r(name.c_str(), r, b, n, f); },
                             [](group& r) { return static_cast<std::uint32_t>(r.gr_gid); });
}

}  // namespace platform
