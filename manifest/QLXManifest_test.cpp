#include "manifest/QLXManifest.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "platform/testing/LinuxTestBed.h"
#include "platform/testing/LogCapture.h"

namespace {

using platform::Dictionary;
using platform::Value;
using platform::testing::LogCapture;

TEST(QLXManifestFolderContainsTest, APathIsUnderAFolderOnlyAtAComponentBoundary) {
  struct Case {
    std::vector<std::string> folders;
    std::string path;
    bool contained;
  } cases[] = {
      {{"/a"}, "/a", true},
      {{"/a"}, "/a/b", true},
      {{"/a/"}, "/a/b", true},
      {{"/a"}, "/a/b/c", true},
      {{"/a/b"}, "/a/bc", false},
      {{"/p/mobile/Containers"}, "/p/mobile/ContainersX", false},
      {{"/p/mobile/Containers"}, "/p/mobile/ContainersX/f", false},
      {{"/a"}, "/b/a", false},
      {{"/b", "/x", "/a"}, "/a/f", true},
      {{"/"}, "/anything", true},
      {{""}, "/a", false},
      {{}, "/a", false},
      {{"/a"}, "", false},
      {{"/a"}, "/a//b", false},
  };
  for (const Case& c : cases) {
    std::string folders;
    for (const auto& f : c.folders) folders += "[" + f + "]";
    EXPECT_EQ(QLXManifest::folderContains(c.folders, c.path), c.contained)
        << folders << " contains " << c.path;
  }
}

class QLXManifestTest : public ::testing::Test, protected platform::testing::LinuxTestBed {
 protected:
  // The relative paths a walk hands to its handler, in order.
  std::vector<std::string> walkOrder(const std::string& start, const std::string& relativeTo,
                                     const std::vector<std::string>& skip, bool inclusive,
                                     bool* result = nullptr) {
    QLXManifest manifest(platform);
    std::vector<std::string> order;
    bool ok = manifest.enumerateAndCollectMetaData(
        start, relativeTo, skip, inclusive, [&](QLXFileMetadata&, const std::string& relative) {
          order.push_back(relative);
          return true;
        });
    if (result) *result = ok;
    return order;
  }
};

TEST_F(QLXManifestTest, CollectsEveryObjectUnderItsRelativePath) {
  dir.write("root/b.txt", "bee");
  dir.write("root/a/inner", "x");
  dir.write("root/.hidden", "");
  ASSERT_EQ(::symlink("b.txt", (dir / "root/link").c_str()), 0);
  std::string root = dir / "root";

  QLXManifest manifest(platform);
  ASSERT_TRUE(manifest.addFilesFromPath(root, root, {}, false));
  EXPECT_EQ(manifest.rootPath(), root);
  EXPECT_EQ(manifest.dict().keys(),
            (std::vector<std::string>{"/.hidden", "/a", "/a/inner", "/b.txt", "/link"}));
  EXPECT_EQ(manifest.pathSet().size(), 5u);
  auto file = manifest.metadataForFile("/b.txt");
  ASSERT_TRUE(file);
  EXPECT_EQ(file->getHash()->size(), 20u);
  EXPECT_EQ(*manifest.metadataForFile("/link")->getTargetFile(), "b.txt");
  EXPECT_FALSE(manifest.metadataForFile("/none"));

  // A manifest made from another's dictionary answers the same records and
  // takes a walk of its own.
  Dictionary copy = manifest.dict();
  copy.set("/odd", "not a record");
  QLXManifest reread(platform, copy);
  EXPECT_FALSE(reread.rootPath());
  EXPECT_EQ(reread.metadataForFile("/b.txt")->compareWith(&*file), 6);
  EXPECT_FALSE(reread.metadataForFile("/odd"));
}

TEST_F(QLXManifestTest, TheStartFolderComesLastAndOnlyWhenInclusive) {
  dir.write("root/z", "");
  dir.write("root/a/b", "");
  std::string root = dir / "root";
  EXPECT_EQ(walkOrder(root, root, {}, true), (std::vector<std::string>{"/a", "/a/b", "/z", "/"}));
  EXPECT_EQ(walkOrder(root, root, {}, false), (std::vector<std::string>{"/a", "/a/b", "/z"}));

  std::string empty = dir.mkdir("empty");
  bool result = false;
  EXPECT_TRUE(walkOrder(empty, empty, {}, false, &result).empty());
  EXPECT_TRUE(result);
  EXPECT_EQ(walkOrder(empty, empty, {}, true, &result), std::vector<std::string>{"/"});
  EXPECT_TRUE(result);
}

TEST_F(QLXManifestTest, ADataAreaWalkIsRelativeToItsParent) {
  dir.write("private/var/mobile/Media/photo", "jpg");
  dir.write("private/var/root/x", "");
  std::string base = dir / "private";
  std::string start = dir / "private/var";
  EXPECT_EQ(walkOrder(start, base, {}, true),
            (std::vector<std::string>{"/var/mobile", "/var/mobile/Media", "/var/mobile/Media/photo",
                                      "/var/root", "/var/root/x", "/var"}));
  // A trailing slash on the start changes nothing.
  EXPECT_EQ(walkOrder(start + "/", base, {}, false).front(), "/var/mobile");
}

TEST_F(QLXManifestTest, EveryOccurrenceOfTheRootIsCutAndAnAbsentRootReusesThePreviousPath) {
  // The root's own text again further down the tree is cut as well.
  std::string root = dir / "r";
  std::string nested = root + root;
  dir.write(nested.substr(dir.path().size() + 1) + "/f", "");
  auto order = walkOrder(root, root, {}, false);
  EXPECT_EQ(order.back(), "/f");

  // A root text found inside the path: the part after it. Not found: the
  // previous entry's path again ("/" before any).
  dir.write("top/a", "");
  dir.write("top/sub/x", "");
  dir.write("top/z", "");
  EXPECT_EQ(walkOrder(dir / "top", "/sub", {}, false),
            (std::vector<std::string>{"/", "/", "/x", "/x"}));
  QLXManifest manifest(platform);
  ASSERT_TRUE(manifest.addFilesFromPath(dir / "top", "/sub", {}, false));
  EXPECT_EQ(manifest.pathSet(), (std::set<std::string>{"/", "/x"}));
  // Later entries replace earlier ones under the same key.
  EXPECT_EQ(*manifest.metadataForFile("/x")->getFileType(), "Regular");
  EXPECT_EQ(manifest.metadataForFile("/x")->getFileSize(), 0);
  EXPECT_EQ(*manifest.metadataForFile("/")->getFileType(), "Directory");

  // An empty root is found nowhere: everything lands on "/".
  EXPECT_EQ(walkOrder(dir / "top", "", {}, false), (std::vector<std::string>{"/", "/", "/", "/"}));
}

TEST_F(QLXManifestTest, SkipListsLeaveOutAFolderAndItsContentsButNotItsNamesakes) {
  dir.write("var/mobile/Containers/app/data", "secret");
  dir.write("var/mobile/ContainersX/kept", "");
  dir.write("var/mobile/Library/prefs", "");
  dir.write("var/containers/c", "");
  std::string root = dir / "var";
  std::vector<std::string> skip = {root + "/mobile/Containers", root + "/containers/"};
  // A folder named with a trailing slash is kept itself; what is below it
  // is not.
  EXPECT_EQ(walkOrder(root, root, skip, false),
            (std::vector<std::string>{"/containers", "/mobile", "/mobile/ContainersX",
                                      "/mobile/ContainersX/kept", "/mobile/Library",
                                      "/mobile/Library/prefs"}));
  // A skipped start folder leaves nothing, itself included.
  bool result = false;
  EXPECT_TRUE(
      walkOrder(root + "/mobile/Library", root, {root + "/mobile/Library"}, true, &result).empty());
  EXPECT_TRUE(result);

  QLXManifest manifest(platform);
  EXPECT_EQ(manifest.calculateTotalFileSize(root, skip), 0);
  EXPECT_EQ(manifest.calculateTotalFileSize(root, {}), 6);
}

TEST_F(QLXManifestTest, SocketsAndFifosAreLoggedAsSpecialAndLeftOut) {
  dir.write("t/a", "");
  dir.write("t/z", "");
  std::string fifo = dir / "t/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::string sock = dir / "t/sock";
  int s = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, sock.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::close(s);

  LogCapture log;
  bool result = false;
  EXPECT_EQ(walkOrder(dir / "t", dir / "t", {}, false, &result),
            (std::vector<std::string>{"/a", "/z"}));
  EXPECT_TRUE(result);
  EXPECT_EQ(log.messages(), (std::vector<std::string>{fifo + " is special file. Leave it along",
                                                      sock + " is special file. Leave it along"}));
}

TEST_F(QLXManifestTest, AManifestTakesOneWalkOnly) {
  dir.write("t/a", "");
  dir.write("u/b", "");
  QLXManifest manifest(platform);
  ASSERT_TRUE(manifest.addFilesFromPath(dir / "t", dir / "t", {}, true));
  Dictionary before = manifest.dict();
  LogCapture log;
  EXPECT_FALSE(manifest.addFilesFromPath(dir / "u", dir / "u", {}, true));
  EXPECT_EQ(manifest.dict(), before);
  EXPECT_EQ(manifest.rootPath(), dir / "t");
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(QLXManifestTest, HiddenEntriesAreTheDirectDotNames) {
  dir.write("f/.a", "");
  dir.write("f/b", "");
  dir.write("f/c.d", "");
  dir.write("f/sub/.deep", "");
  QLXManifest manifest(platform);
  EXPECT_EQ(manifest.immediateHiddenFilesUnderPath(dir / "f/"),
            std::vector<std::string>{dir / "f/.a"});
  LogCapture log;
  EXPECT_TRUE(manifest.immediateHiddenFilesUnderPath(dir / "none").empty());
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(QLXManifestTest, TotalsCountRegularFilesWhileStepsCountEveryObject) {
  dir.write("t/a", "12345");
  dir.write("t/sub/b", "123");
  ASSERT_EQ(::symlink("a", (dir / "t/link").c_str()), 0);
  QLXManifest manifest(platform);
  EXPECT_EQ(manifest.calculateTotalFileSize(dir / "t", {}), 8);
  LogCapture log;
  EXPECT_EQ(manifest.calculateTotalFileSize(dir / "t/a", {}), 0);  // the start is not counted
  EXPECT_TRUE(log.messages().empty());
  EXPECT_EQ(manifest.fileSizeToAdjustPercentage(dir / "t/a"), 5u);
  EXPECT_EQ(manifest.fileSizeToAdjustPercentage(dir / "t/link"), 1u);
  EXPECT_GT(manifest.fileSizeToAdjustPercentage(dir / "t/sub"), 0u);
  EXPECT_EQ(manifest.fileSizeToAdjustPercentage(dir / "none"), 0u);
}

}  // namespace
