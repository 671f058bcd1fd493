#include "platform/linux/LinuxDirectoryEnumerator.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "platform/linux/LinuxFileSystem.h"
#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

using platform::testing::TempDirectory;

// Each entry as "path:flags" with r, d, l for the three resource values.
std::vector<std::string> walk(DirectoryEnumerator& e, const std::string& strip) {
  std::vector<std::string> out;
  while (auto path = e.nextPath()) {
    std::string flags;
    auto value = [&](ResourceKey key, char c) {
      auto v = e.resourceValue(key);
      flags += !v ? '!' : (*v ? c : '-');
    };
    value(ResourceKey::IsRegularFile, 'r');
    value(ResourceKey::IsDirectory, 'd');
    value(ResourceKey::IsSymbolicLink, 'l');
    out.push_back(path->substr(strip.size()) + ":" + flags);
  }
  return out;
}

class LinuxDirectoryEnumeratorTest : public ::testing::Test {
 protected:
  LinuxFileSystem fs;
  TempDirectory dir;
  std::vector<std::pair<std::string, std::string>> errors;
  EnumerationErrorHandler record = [this](const std::string& path, const Error& error) {
    errors.emplace_back(path, error.description);
    return true;
  };
};

TEST_F(LinuxDirectoryEnumeratorTest, FoldersComeBeforeTheirContentsInNameOrder) {
  dir.write("b/z", "");
  dir.write("b/a/deep", "");
  dir.write("a", "");
  dir.write(".hidden", "");
  dir.write("B", "");
  dir.mkdir("c");
  ASSERT_EQ(::symlink("b", (dir / "link").c_str()), 0);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);

  auto e = fs.enumeratorAtPath(dir.path(), record);
  EXPECT_EQ(
      walk(*e, dir.path()),
      (std::vector<std::string>{"/.hidden:r--", "/B:r--", "/a:r--", "/b:-d-", "/b/a:-d-",
                                "/b/a/deep:r--", "/b/z:r--", "/c:-d-", "/fifo:---", "/link:--l"}));
  EXPECT_FALSE(e->nextPath());
  EXPECT_TRUE(errors.empty());

  // A folder whose contents are skipped is still listed itself.
  auto skipping = fs.enumeratorAtPath(dir.path(), record);
  std::vector<std::string> seen;
  while (auto path = skipping->nextPath()) {
    seen.push_back(path->substr(dir.path().size()));
    if (*path == dir / "b") skipping->skipDescendants();
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"/.hidden", "/B", "/a", "/b", "/c", "/fifo", "/link"}));

  // A trailing slash on the start does not double up in the paths.
  auto slash = fs.enumeratorAtPath(dir.path() + "/", record);
  EXPECT_EQ(*slash->nextPath(), dir.path() + "/.hidden");
}

TEST_F(LinuxDirectoryEnumeratorTest, StartsThroughALinkButNeverEntersOneBelow) {
  dir.write("real/inner/f", "");
  ASSERT_EQ(::symlink((dir / "real").c_str(), (dir / "start").c_str()), 0);
  ASSERT_EQ(::symlink("..", (dir / "real/up").c_str()), 0);
  auto e = fs.enumeratorAtPath(dir / "start", record);
  EXPECT_EQ(walk(*e, dir / "start"),
            (std::vector<std::string>{"/inner:-d-", "/inner/f:r--", "/up:--l"}));
}

TEST_F(LinuxDirectoryEnumeratorTest, AFolderThatCannotBeOpenedGoesToTheErrorHandler) {
  dir.write("a/gone/f", "");
  dir.write("a/kept", "");
  auto e = fs.enumeratorAtPath(dir.path(), record);
  EXPECT_EQ(*e->nextPath(), dir / "a");
  EXPECT_EQ(*e->nextPath(), dir / "a/gone");
  std::filesystem::remove_all(dir / "a/gone");
  EXPECT_EQ(*e->nextPath(), dir / "a/kept");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].first, dir / "a/gone");
  EXPECT_NE(errors[0].second.find("No such file or directory"), std::string::npos);
  EXPECT_FALSE(e->nextPath());

  // A handler that answers NO ends the walk there.
  dir.write("x/gone/f", "");
  dir.write("x/later", "");
  auto stop =
      fs.enumeratorAtPath(dir / "x", [](const std::string&, const Error&) { return false; });
  EXPECT_EQ(*stop->nextPath(), dir / "x/gone");
  std::filesystem::remove_all(dir / "x/gone");
  EXPECT_FALSE(stop->nextPath());
  EXPECT_FALSE(stop->nextPath());
}

TEST_F(LinuxDirectoryEnumeratorTest, AMissingStartIsAnErrorAndYieldsNothing) {
  auto e = fs.enumeratorAtPath(dir / "none", record);
  EXPECT_FALSE(e->nextPath());
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].first, dir / "none");
  auto empty = fs.enumeratorAtPath(dir.mkdir("empty"), record);
  EXPECT_FALSE(empty->nextPath());
  // A file has nothing below it, and that is no error.
  auto file = fs.enumeratorAtPath(dir.write("file", ""), record);
  EXPECT_FALSE(file->nextPath());
  EXPECT_EQ(errors.size(), 1u);
}

}  // namespace
}  // namespace platform
