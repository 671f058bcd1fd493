// The process's one logging object: console always, a daily file once enabled.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <string_view>

#include "logging/FormatArg.h"

namespace platform {
class Clock;
class FileSystem;
}  // namespace platform

class QLXLogModel {
 public:
  using ConsoleSink = std::function<void(const std::string& message)>;

  // Console messages go to standard error unless a sink is given.
  QLXLogModel(platform::Clock* clock, platform::FileSystem* fileSystem,
              ConsoleSink console = nullptr);

  // Made on first use from the process-wide platform bundle.
  static QLXLogModel& sharedInstance();

  void logWithFormat(std::string_view format, std::span<const logging::FormatArg> args);
  void logMessage(const std::string& message);
  bool enableLogToFile(const std::string& path);
  bool logToFileEnabled() const { return logFP() != nullptr; }
  bool enableLogToFilesUnder(const std::string& folder, const std::string& prefix,
                             std::int32_t expireDays);
  std::string fileNameForTodayUnder(const std::string& folder, const std::string& prefix);

  std::FILE* logFP() const { return logFP_.load(); }
  // Starts counting the file's bytes from what it already holds.
  void setLogFP(std::FILE* fp);

  // A flood of messages must not fill the data partition: past this many
  // bytes the file gets one line saying so, and nothing more, until another
  // file is set. The console still gets every message.
  static constexpr std::int64_t kDefaultFileLimit = 64ll << 20;
  void setFileSizeLimit(std::int64_t bytes);

 private:
  void console(const std::string& message);
  platform::Date now();

  platform::Clock* clock_;
  platform::FileSystem* fileSystem_;
  ConsoleSink consoleSink_;
  std::atomic<std::FILE*> logFP_{nullptr};
  std::mutex lock_;
  std::int64_t fileLimit_ = kDefaultFileLimit;  // under lock_
  std::int64_t fileBytes_ = 0;                  // under lock_
  bool fileFull_ = false;                       // under lock_
};
