#include "logging/QLXLogModel.h"

#include <chrono>
#include <cstdlib>

#include "logging/ConsoleSink.h"
#include "logging/Formatter.h"
#include "platform/Clock.h"
#include "platform/FileSystem.h"
#include "platform/Path.h"
#include "platform/Platform.h"

namespace {

std::string expandTilde(const std::string& path) {
  if (path.empty() || path[0] != '~') return path;
  if (path.size() > 1 && path[1] != '/') return path;
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "/var/root") + path.substr(1);
}

}  // namespace

QLXLogModel::QLXLogModel(platform::Clock* clock, platform::FileSystem* fileSystem,
                         ConsoleSink console)
    : clock_(clock), fileSystem_(fileSystem), consoleSink_(std::move(console)) {}

QLXLogModel& QLXLogModel::sharedInstance() {
  static QLXLogModel* instance =
      new QLXLogModel(platform::shared().clock, platform::shared().fileSystem);
  return *instance;
}

platform::Date QLXLogModel::now() {
  if (clock_) return clock_->now();
  auto since = std::chrono::system_clock::now().time_since_epoch();
  return platform::Date{std::chrono::duration<double>(since).count()};
}

void QLXLogModel::console(const std::string& message) {
  if (consoleSink_) {
    consoleSink_(message);
    return;
  }
  if (const logging::ConsoleSink& sink = logging::processConsoleSink()) {
    sink(message);
    return;
  }
  std::string line = message + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void QLXLogModel::logWithFormat(std::string_view format, std::span<const logging::FormatArg> args) {
  logMessage(logging::formatMessage(format, args));
}

void QLXLogModel::logMessage(const std::string& message) {
  if (std::FILE* fp = logFP()) {
    std::string stamp = platform::formatDate(now()) + " ";
    std::string line = stamp + message + "\n";
    std::lock_guard<std::mutex> guard(lock_);
    if (fileBytes_ + static_cast<std::int64_t>(line.size()) > fileLimit_) {
      if (!fileFull_) {
        fileFull_ = true;
        line = stamp +
               logging::format(
                   "The log file has reached its limit of %lld bytes; "
                   "further messages go to the console only",
                   static_cast<long long>(fileLimit_)) +
               "\n";
      } else {
        line.clear();
      }
    }
    if (!line.empty()) {
      std::fwrite(line.data(), 1, line.size(), fp);
      std::fflush(fp);
      fileBytes_ += static_cast<std::int64_t>(line.size());
    }
  }
  console(message);
}

void QLXLogModel::setLogFP(std::FILE* fp) {
  std::lock_guard<std::mutex> guard(lock_);
  fileBytes_ = 0;
  // Opened for appending: a restart on the same day finds what it wrote.
  if (fp && std::fseek(fp, 0, SEEK_END) == 0) {
    const long size = std::ftell(fp);
    if (size > 0) fileBytes_ = size;
  }
  fileFull_ = false;
  logFP_.store(fp);
}

void QLXLogModel::setFileSizeLimit(std::int64_t bytes) {
  std::lock_guard<std::mutex> guard(lock_);
  fileLimit_ = bytes;
}

bool QLXLogModel::enableLogToFile(const std::string& rawPath) {
  std::string path = expandTilde(rawPath);
  std::string parent = platform::deletingLastPathComponent(path);
  if (!parent.empty() && fileSystem_ && !fileSystem_->exists(parent)) {
    if (!fileSystem_->createDirectory(parent, true)) return false;
  }
  setLogFP(std::fopen(path.c_str(), "ae"));
  return logFP() != nullptr;
}

bool QLXLogModel::enableLogToFilesUnder(const std::string& folder, const std::string& prefix,
                                        std::int32_t expireDays) {
  if (!fileSystem_) return false;
  if (!fileSystem_->exists(folder) && !fileSystem_->createDirectory(folder, true)) return false;
  std::string probe = folder + "/testWritability.log";
  const std::uint8_t a[] = {'a'};
  if (!fileSystem_->createFile(probe, a)) return false;
  (void)fileSystem_->removeItem(probe);

  platform::Date cutoff{now().seconds() + static_cast<double>(expireDays) * -86400.0};
  auto names = fileSystem_->contentsOfDirectory(folder);
  if (names) {
    for (const std::string& name : *names) {
      std::string full = folder + "/" + name;
      console(
          logging::format("Checking existing log file (full path) %@ against %@", full, cutoff));
      auto attributes = fileSystem_->attributesOfItem(full);
      if (!attributes) continue;
      const platform::Value* created = attributes->find(platform::attr::kCreationDate);
      if (!created || !created->date()) continue;
      if (*created->date() < cutoff) {
        console(logging::format("Removing %@ whose creation date is %@.", full, *created->date()));
        (void)fileSystem_->removeItem(full);
      }
    }
  }
  return enableLogToFile(fileNameForTodayUnder(folder, prefix));
}

std::string QLXLogModel::fileNameForTodayUnder(const std::string& folder,
                                               const std::string& prefix) {
  // Without a clock there is no time zone to ask; UTC is the honest day.
  platform::CalendarDay day = clock_ ? clock_->localDay(now()) : platform::utcDay(now());
  return logging::format("%@/%@-%4ld%02ld%02ld.log", folder, prefix, day.year, day.month, day.day);
}
