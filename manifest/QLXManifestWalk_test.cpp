// How a walk stops, reports progress and logs, with faults injected, and
// that hashing ahead on other threads changes none of it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <random>
#include <set>

#include "manifest/QLXManifest.h"
#include "manifest/QLXProgressUpdater.h"
#include "platform/testing/ForwardingFileSystem.h"
#include "platform/testing/LinuxTestBed.h"
#include "platform/testing/LogCapture.h"

namespace {

using platform::Dictionary;
using platform::ResourceKey;
using platform::testing::FaultInjectingFileSystem;
using platform::testing::ForwardingFileSystem;
using platform::testing::FsCall;
using platform::testing::LogCapture;

class QLXManifestWalkTest : public ::testing::Test, protected platform::testing::LinuxTestBed {
 protected:
  struct Outcome {
    bool result;
    std::vector<std::string> collected;
    std::vector<std::string> log;
    Dictionary dict;
  };
  Outcome walk(const std::string& start, unsigned threads, bool inclusive = false,
               std::function<bool(const std::string&)> handlerAnswer = nullptr) {
    LogCapture log;
    QLXManifest manifest(platform);
    manifest.setHashThreads(threads);
    Outcome out;
    out.result = manifest.enumerateAndCollectMetaData(
        start, start, {}, inclusive, [&](QLXFileMetadata& record, const std::string& relative) {
          out.collected.push_back(relative);
          manifest.setMetadata(record, relative);
          return handlerAnswer ? handlerAnswer(relative) : true;
        });
    out.log = log.messages();
    out.dict = manifest.dict();
    return out;
  }
};

TEST_F(QLXManifestWalkTest, ARecordThatCannotBeMadeEndsTheWalkWithoutFailingIt) {
  dir.write("t/a", "a");
  dir.write("t/b", "b");
  dir.write("t/c", "c");
  fs.fail(FsCall::AttributesOfItem, dir / "t/b");
  fs.fail(FsCall::SizeOfItem, dir / "t/b");
  Outcome out = walk(dir / "t", 0);
  EXPECT_TRUE(out.result);
  EXPECT_EQ(out.collected, std::vector<std::string>{"/a"});
  ASSERT_GE(out.log.size(), 2u);
  EXPECT_EQ(out.log[out.log.size() - 2], "Cannot get file attribute for " + (dir / "t/b"));
  EXPECT_EQ(out.log.back(), "Couldn't get meta data for " + (dir / "t/b"));
  // The total pass could not read b's size either.
  EXPECT_EQ(out.log.front(), "Cound not get attribute for item " + (dir / "t/b"));
}

TEST_F(QLXManifestWalkTest, AHandlerOrAResourceValueFailureFailsTheWalk) {
  dir.write("t/a", "a");
  dir.write("t/b", "b");
  Outcome refused = walk(dir / "t", 0, false, [](const std::string& r) { return r != "/a"; });
  EXPECT_FALSE(refused.result);
  EXPECT_EQ(refused.collected, std::vector<std::string>{"/a"});
  EXPECT_EQ(refused.log.back(), "Couldn't run handler against " + (dir / "t/a"));

  fs.failResource(dir / "t/b", ResourceKey::IsSymbolicLink);
  Outcome noValue = walk(dir / "t", 0);
  EXPECT_FALSE(noValue.result);
  EXPECT_EQ(noValue.collected, std::vector<std::string>{"/a"});
  EXPECT_EQ(noValue.log.back(), "Could not get resource for key IsSymbolicLink");
  // The total pass logs the same failure and goes on.
  EXPECT_EQ(noValue.log.front(), "Could not get resource for key IsSymbolicLink");
}

TEST_F(QLXManifestWalkTest, HashingAheadChangesNeitherRecordsNorMessagesNorStops) {
  std::mt19937 random(11);
  std::vector<std::string> files;
  for (int d = 0; d < 6; ++d) {
    for (int f = 0; f < 40; ++f) {
      std::size_t size = random() % 3 == 0 ? random() % 600000 : random() % 3000;
      std::string contents(size, static_cast<char>('a' + f % 26));
      files.push_back(dir.write("t/d" + std::to_string(d) + "/f" + std::to_string(f), contents));
    }
  }
  ASSERT_EQ(::mkfifo((dir / "t/d3/pipe").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("f1", (dir / "t/d2/link").c_str()), 0);
  fs.fail(FsCall::OpenForReading, files[17], EACCES);
  fs.fail(FsCall::OpenForReading, files[200], EACCES);

  Outcome alone = walk(dir / "t", 0, true);
  Outcome ahead = walk(dir / "t", 2, true);
  EXPECT_TRUE(alone.result);
  EXPECT_EQ(alone.collected.size(), 6u * 41 + 1 + 1);
  EXPECT_EQ(ahead.collected, alone.collected);
  EXPECT_EQ(ahead.log, alone.log);
  EXPECT_TRUE(ahead.dict == alone.dict);

  // A stop part-way: what lies after it was hashed ahead but is neither
  // collected nor logged.
  fs.fail(FsCall::AttributesOfItem, files[150]);
  Outcome stopAlone = walk(dir / "t", 0);
  Outcome stopAhead = walk(dir / "t", 2);
  EXPECT_TRUE(stopAhead.result);
  EXPECT_EQ(stopAhead.collected, stopAlone.collected);
  EXPECT_EQ(stopAhead.log, stopAlone.log);
  EXPECT_EQ(stopAhead.log.back(), "Couldn't get meta data for " + files[150]);
  for (const auto& line : stopAhead.log)
    EXPECT_EQ(line.find(files[200]), std::string::npos) << line;
}

// Appends to one file once, either while its first reader is at its end or
// after that reader is done and just before the walk reads its attributes.
class AppendingFileSystem : public ForwardingFileSystem {
 public:
  enum class When { WhileRead, BeforeAttributes };
  AppendingFileSystem(platform::FileSystem& inner, std::string target, When when)
      : ForwardingFileSystem(inner), target_(std::move(target)), when_(when) {}

  platform::Result<std::unique_ptr<platform::ReadableFile>> openForReading(
      const std::string& path) override {
    auto file = inner_.openForReading(path);
    if (!file || path != target_) return file;
    return std::unique_ptr<platform::ReadableFile>(
        std::make_unique<Reader>(*this, std::move(*file)));
  }
  platform::Result<platform::Dictionary> attributesOfItem(const std::string& path) override {
    if (path == target_ && when_ == When::BeforeAttributes) {
      // The workers hash ahead; wait for them so the write lands between
      // the hash and the attributes.
      std::unique_lock<std::mutex> guard(lock_);
      readDone_.wait_for(guard, std::chrono::seconds(5), [&] { return reads_ > 0; });
      if (reads_ > 0) appendOnce();
    }
    return inner_.attributesOfItem(path);
  }

 private:
  class Reader : public platform::ReadableFile {
   public:
    Reader(AppendingFileSystem& fs, std::unique_ptr<platform::ReadableFile> inner)
        : fs_(fs), inner_(std::move(inner)) {}
    ~Reader() override {
      std::lock_guard<std::mutex> guard(fs_.lock_);
      ++fs_.reads_;
      fs_.readDone_.notify_all();
    }
    platform::Result<std::size_t> read(std::span<std::uint8_t> buffer) override {
      auto n = inner_->read(buffer);
      if (n && *n == 0 && fs_.when_ == When::WhileRead) {
        std::lock_guard<std::mutex> guard(fs_.lock_);
        fs_.appendOnce();
      }
      return n;
    }
    platform::Result<platform::FileIdentity> identity() override { return inner_->identity(); }

   private:
    AppendingFileSystem& fs_;
    std::unique_ptr<platform::ReadableFile> inner_;
  };

  void appendOnce() {
    if (appended_) return;
    appended_ = true;
    std::ofstream(target_, std::ios::app) << std::string(3000, '+');
  }

  std::string target_;
  When when_;
  std::mutex lock_;
  std::condition_variable readDone_;
  int reads_ = 0;
  bool appended_ = false;
};

TEST_F(QLXManifestWalkTest, AFileWrittenDuringTheWalkGetsAHashOfTheSizeRecorded) {
  for (int f = 0; f < 30; ++f) dir.write("t/f" + std::to_string(f), std::string(700, 'a'));
  std::string log = dir.write("t/log", std::string(411, 'l'));
  for (auto when :
       {AppendingFileSystem::When::WhileRead, AppendingFileSystem::When::BeforeAttributes}) {
    for (unsigned threads : {0u, 2u}) {
      // Written between the hash and the attributes only happens when hashing ahead.
      if (when == AppendingFileSystem::When::BeforeAttributes && threads == 0) continue;
      dir.write("t/log", std::string(411, 'l'));
      AppendingFileSystem appending(fs, log, when);
      platform::Platform bundle{.fileSystem = &appending, .digests = &digests};
      QLXManifest manifest(bundle);
      manifest.setHashThreads(threads);
      LogCapture messages;
      ASSERT_TRUE(manifest.addFilesFromPath(dir / "t", dir / "t", {}, false));
      EXPECT_TRUE(messages.messages().empty());
      auto record = manifest.metadataForFile("/log");
      ASSERT_TRUE(record);
      // The record is taken again once the write is seen, so it describes
      // the file as it ends up, hash and size alike.
      std::ifstream in(log, std::ios::binary);
      std::string contents((std::istreambuf_iterator<char>(in)), {});
      ASSERT_EQ(contents.size(), 3411u);
      EXPECT_EQ(record->getFileSize(), 3411) << static_cast<int>(when) << " " << threads;
      ASSERT_TRUE(record->getHash());
      EXPECT_TRUE(*record->getHash() ==
                  platform::sha1(
                      digests,
                      std::span<const std::uint8_t>(
                          reinterpret_cast<const std::uint8_t*>(contents.data()), contents.size())))
          << static_cast<int>(when) << " " << threads;
    }
  }
}

TEST_F(QLXManifestWalkTest, ProgressRisesOncePerValueAndEndsAboveAHundredWithFolders) {
  std::size_t total = 0;
  for (int d = 0; d < 4; ++d) {
    for (int f = 0; f < 10; ++f) {
      std::size_t size = 1000 + 3000 * static_cast<std::size_t>(f);
      total += size;
      dir.write("t/d" + std::to_string(d) + "/f" + std::to_string(f), std::string(size, 'x'));
    }
  }
  std::vector<std::int64_t> sent;
  QLXProgressUpdater updater([&](std::int64_t p) { sent.push_back(p); });
  QLXManifest manifest(platform);
  manifest.setProgressUpdater(&updater);
  LogCapture log;
  ASSERT_TRUE(manifest.addFilesFromPath(dir / "t", dir / "t", {}, true));
  EXPECT_EQ(log.messages().front(), "Initializing percent with total " + std::to_string(total));
  ASSERT_FALSE(sent.empty());
  for (std::size_t i = 1; i < sent.size(); ++i) EXPECT_GT(sent[i], sent[i - 1]);
  EXPECT_GT(sent.back(), 100);
  EXPECT_EQ(updater.total(), static_cast<std::int64_t>(total));
  EXPECT_EQ(log.matching("Percentage increased to ").size(), sent.size());

  // Without an updater nothing is initialised or sent.
  QLXManifest quiet(platform);
  LogCapture quietLog;
  ASSERT_TRUE(quiet.addFilesFromPath(dir / "t", dir / "t", {}, false));
  EXPECT_TRUE(quietLog.messages().empty());
}

TEST_F(QLXManifestWalkTest, AnUnreadableFolderIsLoggedByBothPassesAndSkipped) {
  if (::geteuid() != 0) GTEST_SKIP() << "dropping to another user needs root";
  ::chmod(dir.path().c_str(), 0755);
  dir.write("t/a", "");
  dir.write("t/locked/inside", "");
  dir.write("t/z", "");
  std::string locked = dir / "t/locked";
  ::chmod(locked.c_str(), 0);
  pid_t child = ::fork();
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
    Outcome out = walk(dir / "t", 2);
    std::string tail = " Could not enumerate " + locked + ", url=file://" + locked +
                       ", error=Permission denied (" + locked + ")";
    std::vector<std::string> expected = {
        "__48-[QLXManifest calculateTotalFileSize:skipPaths:]_block_invoke:" + tail,
        "__77-[QLXManifest enumerateAndCollectMetaData:relativeTo:skip:inclusive:handler:]_block_"
        "invoke:" +
            tail};
    bool ok = out.result && out.collected == std::vector<std::string>{"/a", "/locked", "/z"} &&
              out.log == expected;
    ::_exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ::chmod(locked.c_str(), 0755);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
