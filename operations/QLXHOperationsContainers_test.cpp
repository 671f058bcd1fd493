#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "operations/QLXHOperations.h"
#include "platform/testing/Commands.h"
#include "platform/testing/LinuxTestBed.h"
#include "platform/testing/LogCapture.h"
#include "vexd_helper/QLXHMessageResponder.h"

namespace {

namespace fs = std::filesystem;
using platform::testing::contentsOf;
using platform::testing::LogCapture;

// Ownership changes need root; "daemon" stands in for the mobile account,
// which the host does not have.
class ContainerOperationsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to change owners";
    QLXHOperationsPaths paths;
    paths.rootPreferencesDirectory = (root_ / "root/Library/Preferences/").string();
    paths.mobilePreferencesDirectory = (root_ / "mobile/Library/Preferences/").string();
    paths.mobileAccountName = "daemon";
    ops_ = std::make_unique<QLXHOperations>(bundle_, paths);
  }

  static void write(const fs::path& p, const std::string& text) {
    fs::create_directories(p.parent_path());
    std::ofstream(p) << text;
  }
  static struct stat statOf(const fs::path& p) {
    struct stat st {};
    EXPECT_EQ(::lstat(p.c_str(), &st), 0) << p;
    return st;
  }

  platform::testing::LinuxTestBed bed_;
  fs::path root_{bed_.dir.path()};
  platform::Platform& bundle_ = bed_.platform;
  std::unique_ptr<QLXHOperations> ops_;
  LogCapture log_;
};

TEST_F(ContainerOperationsTest, MigrationMovesOnceAndGivesTheFileToMobile) {
  fs::path source = root_ / "root/Library/Preferences/com.velmor.Quillex.plist";
  fs::path destination = root_ / "mobile/Library/Preferences/com.velmor.Quillex.plist";
  fs::create_directories(destination.parent_path());

  EXPECT_FALSE(ops_->migratePreferencesFile());  // nothing to migrate
  EXPECT_TRUE(log_.messages().empty());

  write(source, "new");
  write(destination, "old");
  EXPECT_FALSE(ops_->migratePreferencesFile());  // never overwrites
  EXPECT_EQ(contentsOf(source), "new");
  EXPECT_EQ(contentsOf(destination), "old");
  EXPECT_TRUE(log_.messages().empty());

  fs::remove(destination);
  EXPECT_TRUE(ops_->migratePreferencesFile());
  EXPECT_FALSE(fs::exists(source));
  EXPECT_EQ(contentsOf(destination), "new");
  EXPECT_EQ(statOf(destination).st_uid, 1u);
  EXPECT_EQ(statOf(destination).st_gid, 1u);
}

TEST_F(ContainerOperationsTest, WritableContainersOpenGroupAndOthersAndKeepTheRest) {
  struct Case {
    mode_t before, after;
  } cases[] = {{0700, 0777}, {0500, 0577}, {04700, 04777}, {03750, 03777}, {01000, 01077}};
  for (const Case& c : cases) {
    fs::path dir = root_ / std::string(1, 'c').append(std::to_string(c.before));
    fs::create_directory(dir);
    ASSERT_EQ(::chmod(dir.c_str(), c.before), 0);
    EXPECT_TRUE(ops_->prepareDirectory(platform::Value(dir.string()), true));
    EXPECT_EQ(statOf(dir).st_mode & 07777, c.after) << std::oct << c.before;
    EXPECT_EQ(statOf(dir).st_uid, 0u);
  }
}

TEST_F(ContainerOperationsTest, PreparingClearsOnlyTheStagingTree) {
  fs::path container = root_ / "work";
  write(container / "QLX_staging/app/file", "x");
  write(container / "keep", "y");
  ASSERT_EQ(::chmod(container.c_str(), 0700), 0);
  EXPECT_TRUE(ops_->prepareDirectory(platform::Value(container.string()), false));
  EXPECT_FALSE(fs::exists(container / "QLX_staging"));
  EXPECT_EQ(contentsOf(container / "keep"), "y");
  EXPECT_EQ(statOf(container).st_mode & 07777, 0700u);  // not writable: mode untouched

  fs::path fresh = root_ / "a/b/c";
  EXPECT_TRUE(ops_->prepareDirectory(platform::Value(fresh.string()), true));
  EXPECT_TRUE(fs::is_directory(fresh));
  EXPECT_EQ(statOf(fresh).st_mode & 077, 077u);

  write(root_ / "file", "z");
  EXPECT_FALSE(ops_->prepareDirectory(platform::Value((root_ / "file/sub").string()), true));
  EXPECT_FALSE(ops_->prepareDirectory(platform::Value(), true));
  EXPECT_FALSE(ops_->prepareDirectory(platform::Value(7), true));
  EXPECT_TRUE(log_.contains("7 is not a path"));
}

TEST_F(ContainerOperationsTest, OnlyTheDaemonsLogFilesGoToMobile) {
  fs::path logs = root_ / "logs";
  for (const char* name : {"vexd-today.log", "other.log", "x-vexd-1"}) write(logs / name, "l");
  EXPECT_TRUE(ops_->prepareLogContainer(platform::Value(logs.string())));
  EXPECT_EQ(statOf(logs / "vexd-today.log").st_uid, 1u);
  EXPECT_EQ(statOf(logs / "vexd-today.log").st_gid, 1u);
  EXPECT_EQ(statOf(logs / "other.log").st_uid, 0u);
  EXPECT_EQ(statOf(logs / "x-vexd-1").st_uid, 0u);
  EXPECT_EQ(statOf(logs).st_mode & 077, 077u);
}

TEST_F(ContainerOperationsTest, RemovingAMissingContainerSucceeds) {
  EXPECT_TRUE(ops_->removeDirectory(platform::Value((root_ / "missing").string())));
  write(root_ / "tree/a/b", "x");
  EXPECT_TRUE(ops_->removeDirectory(platform::Value((root_ / "tree").string())));
  EXPECT_FALSE(fs::exists(root_ / "tree"));
}

TEST(PrepareLogContainerRequestTest, PathsOutsideTheLogAreasAreRefusedUntouched) {
  LogCapture log;
  QLXHMessageResponder& responder = QLXHMessageResponder::sharedInstance();
  for (const char* path : {"/var/mobile/x", "/tmp/var/logs/a", "var/logs"}) {
    EXPECT_FALSE(responder.prepareLogContainer(platform::Value(path))) << path;
    EXPECT_FALSE(fs::exists(path));
  }
  EXPECT_FALSE(responder.prepareLogContainer(platform::Value(3)));
  EXPECT_TRUE(
      log.contains("Entering -[QLXHMessageResponder prepareLogContainer:] with "
                   "parameter: /var/mobile/x"));
  EXPECT_TRUE(log.contains(": creating logs under  is not allowed."));
}

}  // namespace
