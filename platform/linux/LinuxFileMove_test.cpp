#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "platform/linux/LinuxFileSystem.h"
#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

using platform::testing::TempDirectory;

std::string readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

struct stat lstatOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st;
}

TEST(LinuxFileMoveTest, RenameNeverReplacesWhatIsThere) {
  LinuxFileSystem fs;
  TempDirectory dir;
  std::string a = dir.write("a", "A");
  std::string b = dir.write("b", "B");
  Status s = fs.moveItem(a, b);
  ASSERT_FALSE(s);
  EXPECT_EQ(s.error().code, EEXIST);
  EXPECT_EQ(readAll(b), "B");
  ASSERT_TRUE(fs.moveItem(a, dir / "c"));
  EXPECT_EQ(readAll(dir / "c"), "A");
  EXPECT_FALSE(fs.exists(a));
  EXPECT_FALSE(fs.moveItem(dir / "none", dir / "d"));
}

TEST(LinuxFileMoveTest, AcrossFileSystemsTheTreeArrivesWholeAndTheOriginalGoes) {
  struct stat shm {
  }, tmp{};
  if (::stat("/dev/shm", &shm) != 0 || ::stat("/tmp", &tmp) != 0 || shm.st_dev == tmp.st_dev)
    GTEST_SKIP() << "needs /dev/shm on a file system of its own";
  LinuxFileSystem fs;
  TempDirectory from("/dev/shm");
  TempDirectory to("/tmp");
  std::string tree = from.mkdir("tree");
  std::string file = from.write("tree/sub/file", "contents");
  ASSERT_EQ(::chmod(file.c_str(), 0604), 0);
  ASSERT_EQ(::setxattr(file.c_str(), "user.k", "v", 1, 0), 0);
  ASSERT_EQ(::link(file.c_str(), (from / "tree/hard").c_str()), 0);
  ASSERT_EQ(::symlink("sub/file", (from / "tree/link").c_str()), 0);
  ASSERT_EQ(::mkfifo((from / "tree/fifo").c_str(), 0620), 0);
  timespec times[2] = {{100, 0}, {200, 5000}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  ASSERT_EQ(::utimensat(AT_FDCWD, (from / "tree/sub").c_str(), times, 0), 0);
  ASSERT_EQ(::chmod((from / "tree/sub").c_str(), 0500), 0);

  std::string dest = to / "moved";
  ASSERT_TRUE(fs.moveItem(tree, dest));
  EXPECT_FALSE(fs.exists(tree));
  EXPECT_EQ(readAll(dest + "/sub/file"), "contents");
  struct stat st = lstatOf(dest + "/sub/file");
  EXPECT_EQ(st.st_mode & 07777, 0604u);
  EXPECT_EQ(st.st_mtim.tv_sec, 200);
  EXPECT_EQ(st.st_mtim.tv_nsec, 5000);
  EXPECT_EQ(st.st_nlink, 2u);
  EXPECT_EQ(lstatOf(dest + "/hard").st_ino, st.st_ino);
  EXPECT_EQ(lstatOf(dest + "/sub").st_mode & 07777, 0500u);
  EXPECT_EQ(lstatOf(dest + "/sub").st_mtim.tv_sec, 200);
  EXPECT_EQ(*fs.destinationOfSymbolicLink(dest + "/link"), "sub/file");
  EXPECT_TRUE(S_ISFIFO(lstatOf(dest + "/fifo").st_mode));
  char v = 0;
  EXPECT_EQ(::getxattr((dest + "/sub/file").c_str(), "user.k", &v, 1), 1);
  EXPECT_EQ(v, 'v');
  ::chmod((dest + "/sub").c_str(), 0700);
}

TEST(LinuxFileMoveTest, HardLinksShareTheItemAndNeverReplace) {
  LinuxFileSystem fs;
  TempDirectory dir;
  std::string a = dir.write("a", "A");
  ASSERT_TRUE(fs.linkItem(a, dir / "b"));
  EXPECT_EQ(lstatOf(a).st_ino, lstatOf(dir / "b").st_ino);
  Status again = fs.linkItem(a, dir / "b");
  ASSERT_FALSE(again);
  EXPECT_EQ(again.error().code, EEXIST);
  EXPECT_FALSE(fs.linkItem(dir / "none", dir / "c"));
  EXPECT_FALSE(fs.linkItem(a, dir / "no/parent"));
}

}  // namespace
}  // namespace platform
