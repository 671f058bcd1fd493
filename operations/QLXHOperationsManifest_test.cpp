#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <filesystem>
#include <fstream>

#include "manifest/QLXProgressUpdater.h"
#include "operations/QLXHOperations.h"
#include "platform/Platform.h"
#include "platform/PropertyList.h"
#include "platform/testing/LinuxTestBed.h"
#include "platform/testing/LogCapture.h"

namespace {

using platform::testing::LogCapture;

class DeviceManifestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    paths_.dataAreaRoot = dir_ / "private/var";
    paths_.dataAreaBase = dir_ / "private";
    paths_.dataAreaSkipList = {dir_ / "private/var/mobile/Containers",
                               dir_ / "private/var/containers"};
    paths_.deviceManifestPath = dir_ / "private/var/QLXWorkContainer/DeviceManifest.plist";
    paths_.finalStagingPath = dir_ / "backup";
    dir_.mkdir("private/var/QLXWorkContainer");
    QLXProgressUpdater::sharedInstance().setSender(
        [this](std::int64_t percent) { progress_.push_back(percent); });
  }
  void TearDown() override { QLXProgressUpdater::sharedInstance().setSender(nullptr); }

  platform::Dictionary writtenManifest() {
    auto parsed = platform::readPropertyListFile(paths_.deviceManifestPath);
    EXPECT_TRUE(parsed.ok());
    return parsed.ok() && parsed->dictionary() ? *parsed->dictionary() : platform::Dictionary();
  }

  platform::testing::LinuxTestBed bed_;
  platform::testing::TempDirectory& dir_ = bed_.dir;
  platform::Platform& bundle_ = bed_.platform;
  QLXHOperationsPaths paths_;
  std::vector<std::int64_t> progress_;
  LogCapture log_;
};

TEST_F(DeviceManifestTest, WholeDataAreaIsWalkedFromVarRelativeToPrivateWithProgress) {
  dir_.write("private/var/mobile/Media/photo", std::string(5000, 'p'));
  dir_.write("private/var/mobile/ContainersX/kept", "k");
  dir_.write("private/var/mobile/Containers/app/skipped", "s");
  dir_.write("private/var/containers/skipped", "s");
  QLXHOperations ops(bundle_, paths_);
  for (const char* request : {"/private/var/", "/private"}) {
    progress_.clear();
    EXPECT_TRUE(ops.createDeviceManifest(platform::Value(request), true)) << request;
    platform::Dictionary manifest = writtenManifest();
    EXPECT_TRUE(manifest.contains("/var/mobile/Media/photo"));
    EXPECT_TRUE(manifest.contains("/var/mobile/ContainersX/kept"));
    EXPECT_TRUE(manifest.contains("/var"));  // the start folder, last
    EXPECT_EQ(manifest.keys().back(), "/var");
    EXPECT_FALSE(manifest.contains("/var/mobile/Containers/app/skipped"));
    EXPECT_FALSE(manifest.contains("/var/containers"));
    ASSERT_FALSE(progress_.empty());
    EXPECT_TRUE(std::is_sorted(progress_.begin(), progress_.end()));
    EXPECT_GE(progress_.back(), 100);
    EXPECT_TRUE(log_.contains(std::string("Device manifest created (for ") + request + ")"));
  }
  EXPECT_TRUE(log_.contains("Will create device manifest..."));
}

TEST_F(DeviceManifestTest, OtherPathsAreTheirOwnBaseSkipTheirHiddenEntriesAndReportNothing) {
  std::string media = dir_.mkdir("media");
  dir_.write("media/a/b", "b");
  dir_.write("media/.hidden/x", "x");
  dir_.write("media/a/.deep", "d");
  QLXHOperations ops(bundle_, paths_);
  EXPECT_TRUE(ops.createDeviceManifest(platform::Value(media), false));
  platform::Dictionary manifest = writtenManifest();
  EXPECT_EQ(manifest.keys(), (std::vector<std::string>{"/a", "/a/.deep", "/a/b"}));
  EXPECT_TRUE(progress_.empty());

  EXPECT_TRUE(ops.createDeviceManifest(platform::Value(media), true));
  EXPECT_TRUE(writtenManifest().contains("/"));

  // A doubled slash in the caller's text changes neither what is skipped
  // nor the text logged.
  dir_.write("media/.hid", "h");
  for (std::string text : {dir_.path() + "//media", dir_.path() + "/.//media"}) {
    EXPECT_TRUE(ops.createDeviceManifest(platform::Value(text), false)) << text;
    EXPECT_EQ(writtenManifest().keys(), (std::vector<std::string>{"/a", "/a/.deep", "/a/b"}))
        << text;
    EXPECT_TRUE(log_.contains("Device manifest created (for " + text + ")"));
  }
  EXPECT_TRUE(progress_.empty());
}

TEST_F(DeviceManifestTest, AFailedWalkKeepsThePreviousManifest) {
  dir_.write("media/a", "a");
  dir_.write("private/var/QLXWorkContainer/DeviceManifest.plist", "previous");
  // A walk that cannot read one entry's type fails as a whole.
  bed_.fs.failResource(dir_ / "media/a", platform::ResourceKey::IsRegularFile);
  QLXHOperations ops(bundle_, paths_);
  EXPECT_FALSE(ops.createDeviceManifest(platform::Value(dir_ / "media"), false));
  EXPECT_TRUE(log_.contains("Cannot create device manifest - 1"));
  std::ifstream in(paths_.deviceManifestPath);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "previous");
  EXPECT_FALSE(ops.createDeviceManifest(platform::Value(3), false));
}

TEST_F(DeviceManifestTest, HardLinksNeverReplaceAnExistingPath) {
  std::string source = dir_.write("content/app.bin", "bits");
  dir_.mkdir("staging");
  QLXHOperations ops(bundle_, paths_);
  EXPECT_TRUE(
      ops.createHardLinks(platform::Value(source), platform::Value(dir_ / "staging/app.bin")));
  struct stat a {
  }, b{};
  ASSERT_EQ(::stat(source.c_str(), &a), 0);
  ASSERT_EQ(::stat((dir_ / "staging/app.bin").c_str(), &b), 0);
  EXPECT_EQ(a.st_ino, b.st_ino);

  EXPECT_FALSE(
      ops.createHardLinks(platform::Value(source), platform::Value(dir_ / "staging/app.bin")));
  EXPECT_EQ(log_.matching("Could not link " + source + " to " + (dir_ / "staging/app.bin") +
                          " with error -File exists")
                .size(),
            1u);
}

TEST_F(DeviceManifestTest, StagingReplacesTheFinalTreeOnlyWhenItIsAFolder) {
  std::string final = dir_.write("backup/old", "old");
  std::string file = dir_.write("stagingfile", "f");
  QLXHOperations ops(bundle_, paths_);
  EXPECT_FALSE(ops.moveStagingToFinal(platform::Value(file)));
  EXPECT_TRUE(log_.contains("Staging path " + file + " looks wrong."));
  EXPECT_TRUE(std::filesystem::exists(final));
  EXPECT_FALSE(ops.moveStagingToFinal(platform::Value(dir_ / "missing")));

  dir_.write("staging/new", "new");
  EXPECT_TRUE(ops.moveStagingToFinal(platform::Value(dir_ / "staging")));
  EXPECT_TRUE(std::filesystem::exists(dir_ / "backup/new"));
  EXPECT_FALSE(std::filesystem::exists(final));
  EXPECT_FALSE(std::filesystem::exists(dir_ / "staging"));
  EXPECT_TRUE(log_.contains("Move the whole thing together."));
}

}  // namespace
