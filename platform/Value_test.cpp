#include "platform/Value.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(ValueTest, BooleanAndIntegerReadAlikeAsNumbers) {
  Value yes(true), one(1), zero(0), no(false);
  EXPECT_TRUE(yes.boolValue());
  EXPECT_TRUE(one.boolValue());
  EXPECT_EQ(yes.int64Value(), one.int64Value());
  EXPECT_FALSE(zero.boolValue());
  EXPECT_EQ(no.int64Value(), 0);
  EXPECT_TRUE(yes.isBoolean());
  EXPECT_FALSE(one.isBoolean());
  EXPECT_EQ(yes, one);  // numbers compare by value, as the platform's do
  EXPECT_FALSE(Value("1").isNumber());
  EXPECT_EQ(*Value("text").string(), "text");  // not the pointer's truth value
  EXPECT_EQ(Value(std::uint64_t{7}), Value(7));
  EXPECT_FALSE(Value(-1) == Value(std::uint64_t{UINT64_MAX}));
}

TEST(ValueTest, StringsAnswerBoolValueAsThePlatformsStringsDo) {
  for (const char* yes : {"YES", "true", "T", "1", " +001", "9x"})
    EXPECT_TRUE(Value(yes).boolValue()) << yes;
  for (const char* no : {"NO", "false", "0", "", " -0", "x1"})
    EXPECT_FALSE(Value(no).boolValue()) << no;
}

TEST(ValueTest, CopiesAreDeep) {
  Dictionary inner{{"k", "v"}};
  Value outer(Dictionary{{"inner", inner}});
  Value copy = outer;
  copy.dictionary()->find("inner")->dictionary()->set("k", "changed");
  EXPECT_EQ(*outer.dictionary()->find("inner")->dictionary()->find("k")->string(), "v");
}

TEST(ValueTest, DescriptionsReadLikeThePlatforms) {
  EXPECT_EQ(Value("bare").description(), "bare");
  EXPECT_EQ(Value(Data{0xde, 0xad, 0xbe, 0xef, 0x01}).description(), "<deadbeef 01>");
  EXPECT_EQ(Value(Date{0}).description(), "1970-01-01 00:00:00 +0000");
  Value d(Dictionary{{"Path", "/private/var"}, {"Inclusive", true}, {"x y", Array{1, "a b"}}});
  EXPECT_EQ(d.description(),
            "{\n    Path = /private/var;\n    Inclusive = 1;\n    \"x y\" = (\n        1,\n"
            "        \"a b\"\n    );\n}");
}

}  // namespace
}  // namespace platform
