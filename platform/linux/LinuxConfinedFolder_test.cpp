#include "platform/linux/LinuxConfinedFolder.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

using platform::testing::TempDirectory;
using Resolution = LinuxConfinedFolder::Resolution;
namespace fs = std::filesystem;

struct stat lstatOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st;
}

// Every case runs with openat2 and with the walk that stands in for it.
class LinuxConfinedFolderTest : public ::testing::TestWithParam<Resolution> {
 protected:
  void SetUp() override {
    root = dir.mkdir("staged");
    file = dir.write("staged/Data/level.dat", "level");
    ::chmod(file.c_str(), 0600);
    outside = dir.write("outside/level.dat", "keep");
    ::chmod(outside.c_str(), 0600);
  }
  std::unique_ptr<ConfinedFolder> open(const std::string& path) {
    return std::make_unique<LinuxConfinedFolder>(path, accounts, GetParam());
  }
  // The errno an item answers with, 0 when it was reached.
  static int errorOf(FileItem& item) {
    Status s = item.setAttributes({});
    return s ? 0 : s.error().code;
  }
  const Dictionary kMode0640{{attr::kPosixPermissions, 0640}};

  LinuxAccountNames accounts;
  TempDirectory dir;
  bool isRoot = ::geteuid() == 0;
  std::string root, file, outside;
};

TEST_P(LinuxConfinedFolderTest, ReachesWhatLiesBelowAndNothingElse) {
  auto folder = open(root);
  ASSERT_TRUE(folder->openItem("/Data/level.dat")->setAttributes(kMode0640));
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 0640u);
  // "/" and "." are the folder itself; empty components are skipped.
  ASSERT_TRUE(folder->openItem("/")->setAttributes({{attr::kPosixPermissions, 0750}}));
  EXPECT_EQ(lstatOf(root).st_mode & 07777, 0750u);
  ASSERT_TRUE(folder->openItem("Data//./level.dat")->lchmod(0604));
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 0604u);

  ASSERT_EQ(::symlink((dir / "outside").c_str(), (root + "/Linked").c_str()), 0);
  ASSERT_EQ(::symlink("/", (root + "/Data/up").c_str()), 0);
  struct Case {
    const char* path;
    int err;
  } cases[] = {
      {"/Linked/level.dat", ELOOP},              // a link on the way
      {"/Data/up/tmp", ELOOP},                   // an absolute one too
      {"/Data/../../outside/level.dat", EXDEV},  // climbing out
      {"/..", EXDEV},
      {"/Data/level.dat/x", ENOTDIR},
      {"/Data/missing", ENOENT},
  };
  for (const Case& c : cases) {
    auto item = folder->openItem(c.path);
    EXPECT_EQ(errorOf(*item), c.err) << c.path;
    Status s = item->lchown(0, 0);
    ASSERT_FALSE(s) << c.path;
    // The error names the path as the caller joined it.
    EXPECT_EQ(s.error().description,
              std::string(std::strerror(c.err)) + " (" + root + c.path + ")");
    EXPECT_FALSE(item->setExtendedAttribute("user.x", Data{1}));
    EXPECT_FALSE(item->lchmod(0777));
  }
  EXPECT_EQ(errorOf(*folder->openItem(std::string("/Data\0/../..", 12))), EINVAL);
  EXPECT_EQ(lstatOf(outside).st_mode & 07777, 0600u);
}

TEST_P(LinuxConfinedFolderTest, ALinkAtTheEndIsHeldAsTheLinkItself) {
  std::string link = root + "/Data/current";
  ASSERT_EQ(::symlink(outside.c_str(), link.c_str()), 0);
  auto item = open(root)->openItem("/Data/current");
  Dictionary attrs{{attr::kPosixPermissions, 0777}, {attr::kModificationDate, Date{1000}}};
  if (isRoot) attrs.set(attr::kOwnerAccountID, 4321);
  ASSERT_TRUE(item->setAttributes(attrs));
  EXPECT_EQ(lstatOf(link).st_mtim.tv_sec, 1000);
  EXPECT_EQ(lstatOf(outside).st_mode & 07777, 0600u);
  EXPECT_NE(lstatOf(outside).st_mtim.tv_sec, 1000);
  // A link has no mode to change; user attributes cannot go on a link.
  EXPECT_EQ(item->lchmod(0644).error().code, EOPNOTSUPP);
  EXPECT_FALSE(item->setExtendedAttribute("user.x", Data{1}));
  EXPECT_EQ(::getxattr(outside.c_str(), "user.x", nullptr, 0), -1);
  if (!isRoot) return;
  EXPECT_EQ(lstatOf(link).st_uid, 4321u);
  ASSERT_TRUE(item->lchown(11, 12));
  EXPECT_EQ(lstatOf(link).st_gid, 12u);
  EXPECT_EQ(lstatOf(outside).st_uid, 0u);
  // Trusted attributes can: they land on the link, not on its target.
  ASSERT_TRUE(item->setExtendedAttribute("trusted.velmor", Data{'v'}));
  EXPECT_EQ(::lgetxattr(link.c_str(), "trusted.velmor", nullptr, 0), 1);
  EXPECT_EQ(::getxattr(outside.c_str(), "trusted.velmor", nullptr, 0), -1);
}

TEST_P(LinuxConfinedFolderTest, AFolderSwappedForALinkAfterwardsRedirectsNothing) {
  auto folder = open(root);
  auto held = folder->openItem("/Data/level.dat");
  fs::rename(root + "/Data", root + "/Data.old");
  ASSERT_EQ(::symlink((dir / "outside").c_str(), (root + "/Data").c_str()), 0);

  // What was reached before the swap is changed where it now lies.
  ASSERT_TRUE(held->setAttributes(kMode0640));
  ASSERT_TRUE(held->setExtendedAttribute("user.velmor.origin", Data{'s'}));
  EXPECT_EQ(lstatOf(root + "/Data.old/level.dat").st_mode & 07777, 0640u);
  // What is reached after it is refused.
  EXPECT_EQ(errorOf(*folder->openItem("/Data/level.dat")), ELOOP);
  EXPECT_EQ(lstatOf(outside).st_mode & 07777, 0600u);
  EXPECT_EQ(::getxattr(outside.c_str(), "user.velmor.origin", nullptr, 0), -1);
}

TEST_P(LinuxConfinedFolderTest, TheFolderItselfIsHeldAsItWasNamed) {
  // Renamed and replaced by a link after it was opened: still the same folder.
  auto folder = open(root + "/");
  fs::rename(root, dir / "moved");
  ASSERT_EQ(::symlink((dir / "outside").c_str(), root.c_str()), 0);
  ASSERT_TRUE(folder->openItem("/Data/level.dat")->setAttributes(kMode0640));
  EXPECT_EQ(lstatOf(dir / "moved/Data/level.dat").st_mode & 07777, 0640u);

  // A link where the folder is named is held as a link: nothing below it is
  // reached, even with a trailing slash that would follow it.
  for (const std::string& named : {root, root + "/"}) {
    auto linked = open(named);
    EXPECT_EQ(errorOf(*linked->openItem("/level.dat")), ENOTDIR) << named;
    EXPECT_EQ(errorOf(*linked->openItem("/")), 0) << named;
  }
  EXPECT_EQ(lstatOf(outside).st_mode & 07777, 0600u);

  // A folder that cannot be opened fails every item with its reason.
  auto missing = open(dir / "missing");
  Status s = missing->openItem("/Data/level.dat")->setAttributes(kMode0640);
  ASSERT_FALSE(s);
  EXPECT_EQ(s.error().description,
            std::string(std::strerror(ENOENT)) + " (" + dir / "missing/Data/level.dat)");
}

TEST_P(LinuxConfinedFolderTest, ImmutableFilesAndFoldersAreReopenedThroughTheHeldItem) {
  if (!isRoot) GTEST_SKIP() << "the immutable flag needs root";
  auto folder = open(root);
  for (const char* path : {"/Data/level.dat", "/Data"}) {
    auto item = folder->openItem(path);
    Status made = item->setAttributes({{attr::kImmutable, true}});
    if (!made && made.error().code == EOPNOTSUPP) GTEST_SKIP() << "no inode flags here";
    ASSERT_TRUE(made) << made.error().description;
    EXPECT_FALSE(item->setAttributes(kMode0640)) << path;
    ASSERT_TRUE(item->setAttributes({{attr::kImmutable, false}, {attr::kPosixPermissions, 0700}}))
        << path;
    EXPECT_EQ(lstatOf(root + path).st_mode & 07777, 0700u);
  }
}

INSTANTIATE_TEST_SUITE_P(Resolutions, LinuxConfinedFolderTest,
                         ::testing::Values(Resolution::Openat2, Resolution::Walk),
                         [](const auto& info) {
                           return info.param == Resolution::Openat2 ? "Openat2" : "Walk";
                         });

}  // namespace
}  // namespace platform
