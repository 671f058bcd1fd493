#include "logging/Formatter.h"

#include <gtest/gtest.h>

namespace logging {
namespace {

TEST(FormatterTest, ConversionsTheServiceUses) {
  EXPECT_EQ(format("%@/%@-%4ld%02ld%02ld.log", "/l", "p", 2026L, 3L, 5L), "/l/p-20260305.log");
  EXPECT_EQ(format("%4ld|%02ld", 999L, 7L), " 999|07");
  EXPECT_EQ(format("%lld %llu %d %u", -5LL, 18446744073709551615ULL, -3, 4u),
            "-5 18446744073709551615 -3 4");
  EXPECT_EQ(format("0x%x 0x%llx %%", 255u, 0x1ULL), "0xff 0x1 %");
  EXPECT_EQ(format("%s|%@", "text", std::string("str")), "text|str");
}

TEST(FormatterTest, MissingArgumentsRenderEmpty) {
  EXPECT_EQ(format("%s started"), " started");
  EXPECT_EQ(format("%s: creating logs under %@ is not allowed."),
            ": creating logs under  is not allowed.");
  EXPECT_EQ(format("%s: Cannot set attribute for %@ - %@", "/p", "err"),
            "/p: Cannot set attribute for err - ");
}

TEST(FormatterTest, AnyArgumentRendersThroughPercentSAndAt) {
  EXPECT_EQ(format("%s", 42), "42");
  EXPECT_EQ(format("%@", platform::Value(7)), "7");
  EXPECT_EQ(format("%@", platform::Value(true)), "1");
  EXPECT_EQ(format("%d", platform::Value(3)), "3");
  EXPECT_EQ(format("%@", platform::Error::posix(2, "No such file or directory")),
            "No such file or directory");
}

TEST(FormatterTest, IntTruncatesLikeVarargs) {
  EXPECT_EQ(format("%d", 0x100000001LL), "1");
  EXPECT_EQ(format("%ld", 0x100000001LL), "4294967297");
}

TEST(FormatterTest, UnknownConversionsStayAsWritten) {
  EXPECT_EQ(format("100%", 1), "100%");
  EXPECT_EQ(format("a %y b", 1), "a %y b");
}

}  // namespace
}  // namespace logging
