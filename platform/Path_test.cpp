#include "platform/Path.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(PathTest, ComponentsJoinWithExactlyOneSlash) {
  EXPECT_EQ(appendPathComponent("/var/root/Library/Preferences/", "com.velmor.Quillex.plist"),
            "/var/root/Library/Preferences/com.velmor.Quillex.plist");
  EXPECT_EQ(appendPathComponent("/a", "QLX_staging"), "/a/QLX_staging");
  EXPECT_EQ(appendPathComponent("/a//", "/b"), "/a/b");
  EXPECT_EQ(appendPathComponent("/", "b"), "/b");
  EXPECT_EQ(appendPathComponent("", "b"), "b");
  EXPECT_EQ(appendPathComponent("/a", ""), "/a");
}

TEST(PathTest, LastComponentIsCutOff) {
  EXPECT_EQ(deletingLastPathComponent("/private/var/logs/vexd/x.log"), "/private/var/logs/vexd");
  EXPECT_EQ(deletingLastPathComponent("/x"), "/");
  EXPECT_EQ(deletingLastPathComponent("x"), "");
  EXPECT_EQ(deletingLastPathComponent("/a/b/"), "/a");
}

}  // namespace
}  // namespace platform
