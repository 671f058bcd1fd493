#include "logging/QLXLogModel.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "platform/FileSystem.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/testing/Commands.h"
#include "platform/testing/ForwardingFileSystem.h"
#include "platform/testing/SettableClock.h"
#include "platform/testing/TempDirectory.h"

namespace {

using platform::Date;
using platform::testing::contentsOf;
using platform::testing::TempDirectory;

// 2026-03-05 12:34:56.25 UTC.
constexpr double kNow = 1772714096.25;
constexpr double kDay = 86400;

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// Answers chosen creation dates (or none) for named entries and fails the
// attribute read of others, over the real file system.
class DatedFileSystem : public platform::testing::ForwardingFileSystem {
 public:
  using ForwardingFileSystem::ForwardingFileSystem;
  std::map<std::string, std::optional<Date>> creationDates;  // by last path component
  std::set<std::string> unreadable;
  std::optional<int> failCreateFile;

  platform::Result<platform::Dictionary> attributesOfItem(const std::string& path) override {
    std::string name = path.substr(path.find_last_of('/') + 1);
    if (unreadable.count(name)) return platform::Error::posix(EACCES, "denied");
    auto attributes = inner_.attributesOfItem(path);
    auto it = creationDates.find(name);
    if (attributes && it != creationDates.end()) {
      attributes->erase(platform::attr::kCreationDate);
      if (it->second) attributes->set(platform::attr::kCreationDate, *it->second);
    }
    return attributes;
  }
  platform::Status createFile(const std::string& path,
                              std::span<const std::uint8_t> contents) override {
    if (failCreateFile) return platform::Error::posix(*failCreateFile, path);
    return inner_.createFile(path, contents);
  }
};

class LogModelTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (std::FILE* fp = model.logFP()) std::fclose(fp);
  }

  std::vector<std::string> consoleLines() {
    std::lock_guard<std::mutex> guard(consoleLock);
    return console;
  }
  bool consoleHas(const std::string& line) {
    auto lines = consoleLines();
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  }
  std::size_t consoleCount(const std::string& prefix) {
    std::size_t n = 0;
    for (const auto& line : consoleLines()) n += line.starts_with(prefix);
    return n;
  }
  Date birthOf(const std::string& path) {
    auto attributes = fs.attributesOfItem(path);
    const platform::Value* created =
        attributes ? attributes->find(platform::attr::kCreationDate) : nullptr;
    return created && created->date() ? *created->date() : Date{-1};
  }

  TempDirectory dir;
  std::string logs = dir / "logs";
  platform::LinuxFileSystem fs;
  DatedFileSystem dated{fs};
  platform::testing::SettableClock clock{Date{kNow}};
  std::mutex consoleLock;
  std::vector<std::string> console;
  QLXLogModel model{&clock, &dated, [this](const std::string& message) {
                      std::lock_guard<std::mutex> guard(consoleLock);
                      console.push_back(message);
                    }};
};

TEST_F(LogModelTest, FileLinesAreStampedInUtcAndConsoleLinesAreBare) {
  ASSERT_TRUE(model.enableLogToFilesUnder(logs, "vexd_helper", 5));
  EXPECT_TRUE(model.logToFileEnabled());
  model.logMessage("hello");
  model.logWithFormat("%s started", {});
  const logging::FormatArg one[] = {logging::FormatArg("x")};
  model.logWithFormat("%@ and %s", one);
  EXPECT_EQ(contentsOf(logs + "/vexd_helper-20260305.log"),
            "2026-03-05 12:34:56 +0000 hello\n"
            "2026-03-05 12:34:56 +0000  started\n"
            "2026-03-05 12:34:56 +0000 x and \n");
  EXPECT_EQ(consoleLines(), (std::vector<std::string>{"hello", " started", "x and "}));
  EXPECT_FALSE(fs.exists(logs + "/testWritability.log"));
}

TEST_F(LogModelTest, FileIsNamedForTheLocalDayWithTheYearSpacePadded) {
  clock.setDay({999, 3, 5});
  EXPECT_EQ(model.fileNameForTodayUnder("/l", "p"), "/l/p- 9990305.log");
  clock.setDay({12345, 1, 2});
  EXPECT_EQ(model.fileNameForTodayUnder("/l", "p"), "/l/p-123450102.log");

  // Late evening in UTC is already tomorrow where the device is; the file
  // takes the local day while its lines keep UTC.
  clock.setNow(Date{1772668800 + 23.5 * 3600});
  clock.setDay({2026, 3, 6});
  ASSERT_TRUE(model.enableLogToFilesUnder(logs, "vexd_helper", 5));
  model.logMessage("late");
  EXPECT_EQ(contentsOf(logs + "/vexd_helper-20260306.log"), "2026-03-05 23:30:00 +0000 late\n");
}

TEST_F(LogModelTest, TodaysFileIsAppendedToNeverTruncated) {
  ASSERT_TRUE(fs.createDirectory(logs, true));
  writeFile(logs + "/vexd_helper-20260305.log", "earlier line\n");
  ASSERT_TRUE(model.enableLogToFilesUnder(logs, "vexd_helper", 5));
  model.logMessage("later");
  EXPECT_EQ(contentsOf(logs + "/vexd_helper-20260305.log"),
            "earlier line\n2026-03-05 12:34:56 +0000 later\n");
}

// A flood stops at the cap (counting what a restart finds in today's file)
// with one line saying so; the console still gets everything.
TEST_F(LogModelTest, TheFileStopsAtItsLimitWithOneLineAndTheConsoleGoesOn) {
  ASSERT_TRUE(fs.createDirectory(logs, true));
  const std::string file = logs + "/vexd_helper-20260305.log";
  writeFile(file, "earlier line\n");
  model.setFileSizeLimit(13 + 31);  // the earlier line and one stamped "aaaa"
  ASSERT_TRUE(model.enableLogToFilesUnder(logs, "vexd_helper", 5));
  for (const char* m : {"aaaa", "bbbb", "cccc"}) model.logMessage(m);
  EXPECT_EQ(contentsOf(file),
            "earlier line\n2026-03-05 12:34:56 +0000 aaaa\n"
            "2026-03-05 12:34:56 +0000 The log file has reached its limit of 44 bytes; further "
            "messages go to the console only\n");
  auto console = consoleLines();
  ASSERT_GE(console.size(), 3u);
  EXPECT_EQ(std::vector<std::string>(console.end() - 3, console.end()),
            (std::vector<std::string>{"aaaa", "bbbb", "cccc"}));

  // Another file starts its own count.
  std::fclose(model.logFP());
  std::FILE* next = std::fopen((dir / "next.log").c_str(), "w");
  model.setLogFP(next);
  model.logMessage("dddd");
  std::fflush(next);
  EXPECT_EQ(contentsOf(dir / "next.log"), "2026-03-05 12:34:56 +0000 dddd\n");
}

TEST_F(LogModelTest, ExpiryByRealBirthTimesRemovesEverythingOlderThanTheCutoff) {
  ASSERT_TRUE(fs.createDirectory(logs + "/old-folder/inner", true));
  writeFile(logs + "/old-folder/inner/file", "x");
  writeFile(logs + "/vexd_helper-20260101.log", "x");
  writeFile(logs + "/someone-else.txt", "x");
  Date newest{0};
  for (const char* name : {"old-folder", "vexd_helper-20260101.log", "someone-else.txt"})
    newest = std::max(newest, birthOf(logs + "/" + name));
  if (newest.seconds() <= 0)
    GTEST_SKIP() << "the file system under " << dir.path() << " keeps no birth time";

  // The clock moves, not the files: 4 days 23 hours on, all are kept.
  clock.setNow(Date{newest.seconds() + 4 * kDay + 23 * 3600});
  ASSERT_TRUE(model.enableLogToFilesUnder(logs, "vexd_helper", 5));
  EXPECT_EQ(consoleCount("Checking existing log file (full path) "), 3u);
  EXPECT_EQ(consoleCount("Removing "), 0u);
  std::fclose(model.logFP());
  model.setLogFP(nullptr);

  std::string folder = logs + "/old-folder";
  Date folderBirth = birthOf(folder);
  // 5 days and a second on, every entry goes: foreign files and folders
  // with their contents too.
  console.clear();
  clock.setNow(Date{newest.seconds() + 5 * kDay + 1});
  ASSERT_TRUE(model.enableLogToFilesUnder(logs, "vexd_helper", 5));
  Date cutoff{newest.seconds() + 1};
  EXPECT_TRUE(consoleHas("Checking existing log file (full path) " + folder + " against " +
                         platform::formatDate(cutoff)));
  EXPECT_TRUE(consoleHas("Removing " + folder + " whose creation date is " +
                         platform::formatDate(folderBirth) + "."));
  EXPECT_EQ(consoleCount("Removing "), 4u);  // the first run's log file too
  EXPECT_FALSE(fs.exists(folder));
  EXPECT_FALSE(fs.exists(logs + "/someone-else.txt"));
  EXPECT_FALSE(fs.exists(logs + "/vexd_helper-20260101.log"));
  // Expiry talks to the console only; the new day's file starts empty.
  model.logMessage("fresh");
  std::string today = model.fileNameForTodayUnder(logs, "vexd_helper");
  EXPECT_EQ(contentsOf(today).find("Checking"), std::string::npos);
  EXPECT_NE(contentsOf(today).find("fresh"), std::string::npos);
}

TEST_F(LogModelTest, ExpiryBoundaryIsStrictAndUnreadableDatesAreKept) {
  ASSERT_TRUE(fs.createDirectory(logs, true));
  for (const char* name : {"a-5d1s", "b-4d23h", "c-exactly5d", "d-nodate", "e-noattributes"})
    writeFile(logs + "/" + name, "x");
  dated.creationDates = {{"a-5d1s", Date{kNow - 5 * kDay - 1}},
                         {"b-4d23h", Date{kNow - 4 * kDay - 23 * 3600}},
                         {"c-exactly5d", Date{kNow - 5 * kDay}},
                         {"d-nodate", std::nullopt}};
  dated.unreadable = {"e-noattributes"};
  ASSERT_TRUE(model.enableLogToFilesUnder(logs, "vexd_helper", 5));
  EXPECT_FALSE(fs.exists(logs + "/a-5d1s"));
  EXPECT_TRUE(fs.exists(logs + "/b-4d23h"));
  EXPECT_TRUE(fs.exists(logs + "/c-exactly5d"));
  EXPECT_TRUE(fs.exists(logs + "/d-nodate"));
  EXPECT_TRUE(fs.exists(logs + "/e-noattributes"));
  EXPECT_EQ(consoleLines(),
            (std::vector<std::string>{
                "Checking existing log file (full path) " + logs +
                    "/a-5d1s against 2026-02-28 12:34:56 +0000",
                "Removing " + logs + "/a-5d1s whose creation date is 2026-02-28 12:34:55 +0000.",
                "Checking existing log file (full path) " + logs +
                    "/b-4d23h against 2026-02-28 12:34:56 +0000",
                "Checking existing log file (full path) " + logs +
                    "/c-exactly5d against 2026-02-28 12:34:56 +0000",
                "Checking existing log file (full path) " + logs +
                    "/d-nodate against 2026-02-28 12:34:56 +0000",
                "Checking existing log file (full path) " + logs +
                    "/e-noattributes against 2026-02-28 12:34:56 +0000"}));
}

TEST_F(LogModelTest, UnusableFolderLeavesTheConsoleOnly) {
  // Root ignores permission bits, so the folder is made unusable by a file
  // in its path, and a read-only one by a refused write.
  writeFile(dir / "plain", "not a folder");
  EXPECT_FALSE(model.enableLogToFilesUnder(dir / "plain/logs", "vexd_helper", 5));
  EXPECT_FALSE(model.enableLogToFile(dir / "plain/logs/direct.log"));
  EXPECT_FALSE(model.logToFileEnabled());

  ASSERT_TRUE(fs.createDirectory(logs, true));
  writeFile(logs + "/ancient", "x");
  dated.creationDates = {{"ancient", Date{0}}};
  dated.failCreateFile = EROFS;
  EXPECT_FALSE(model.enableLogToFilesUnder(logs, "vexd_helper", 5));
  EXPECT_FALSE(model.logToFileEnabled());
  EXPECT_TRUE(fs.exists(logs + "/ancient"));  // no expiry without a writable folder
  EXPECT_FALSE(fs.exists(model.fileNameForTodayUnder(logs, "vexd_helper")));

  model.logMessage("still heard");
  EXPECT_EQ(consoleLines(), std::vector<std::string>{"still heard"});
}

TEST_F(LogModelTest, LinesFromManyThreadsNeverInterleave) {
  ASSERT_TRUE(model.enableLogToFilesUnder(logs, "vexd_helper", 5));
  constexpr int kThreads = 8, kLines = 200;
  // Longer than a stdio buffer, so an unlocked write would split lines.
  const std::string filler(6000, 'x');
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLines; ++i)
        model.logMessage("thread " + std::to_string(t) + " line " + std::to_string(i) + " " +
                         filler);
    });
  for (auto& t : threads) t.join();

  std::istringstream file(contentsOf(model.fileNameForTodayUnder(logs, "vexd_helper")));
  std::vector<int> next(kThreads, 0);
  std::string line;
  int count = 0;
  while (std::getline(file, line)) {
    ++count;
    int t = -1, i = -1;
    ASSERT_EQ(std::sscanf(line.c_str(), "2026-03-05 12:34:56 +0000 thread %d line %d", &t, &i), 2)
        << line.substr(0, 80);
    ASSERT_TRUE(t >= 0 && t < kThreads);
    EXPECT_EQ(i, next[t]++);
    EXPECT_TRUE(line.ends_with(" " + filler)) << "line " << count << " was broken";
  }
  EXPECT_EQ(count, kThreads * kLines);
  EXPECT_EQ(consoleLines().size(), static_cast<std::size_t>(kThreads * kLines));
}

}  // namespace
