#include "tools/ctl/Json.h"

#include <gtest/gtest.h>

namespace vexdctl {
namespace {

ovix::Object parse(const std::string& text) {
  ovix::Object out;
  std::string error;
  EXPECT_TRUE(parseJson(text, out, error)) << text << ": " << error;
  return out;
}

std::string errorOf(const std::string& text) {
  ovix::Object out;
  std::string error;
  EXPECT_FALSE(parseJson(text, out, error)) << text;
  return error;
}

TEST(VexdctlJson, ObjectsKeepTheOrderTheirKeysWereWrittenIn) {
  ovix::Object o =
      parse(R"({"prepareWorkContainer:": true, "createDeviceManifest:": {"b": 1, "a": 2}})");
  std::vector<std::string> keys;
  o.apply([&](const std::string& k, const ovix::Object&) {
    keys.push_back(k);
    return true;
  });
  EXPECT_EQ(keys, (std::vector<std::string>{"prepareWorkContainer:", "createDeviceManifest:"}));
  EXPECT_EQ(toJson(o),
            R"({"prepareWorkContainer:": true, "createDeviceManifest:": {"b": 1, "a": 2}})");
}

TEST(VexdctlJson, NumbersKeepTheirKind) {
  EXPECT_EQ(parse("-9223372036854775808"), ovix::Object::makeInt64(INT64_MIN));
  EXPECT_EQ(parse("9223372036854775808"), ovix::Object::makeUInt64(9223372036854775808ull));
  EXPECT_EQ(parse("1"), ovix::Object::makeInt64(1));
  EXPECT_EQ(parse("1.5e1"), ovix::Object::makeDouble(15.0));
  // Written back, a whole double stays a double.
  for (const char* text : {"1.5e1", "-0.0", "1E+2", "0.1", "1e300"})
    EXPECT_EQ(parse(toJson(parse(text))), parse(text)) << text;
  EXPECT_EQ(toJson(parse("1.5e1")), "15.0");
  EXPECT_EQ(parse("  true "), ovix::Object::makeBool(true));
  EXPECT_EQ(parse("null"), ovix::Object::makeNull());
  EXPECT_FALSE(errorOf("18446744073709551616").empty());
  EXPECT_FALSE(errorOf("-9223372036854775809").empty());
  EXPECT_FALSE(errorOf("01").empty());
  EXPECT_FALSE(errorOf("1.").empty());
  EXPECT_FALSE(errorOf("1e999").empty());
}

TEST(VexdctlJson, StringsDecodeEscapesAndSurrogatePairs) {
  EXPECT_EQ(parse(R"("a\"b\\c\/\n\t")").stringValue(), "a\"b\\c/\n\t");
  EXPECT_EQ(parse(R"("\u00e9\ud83d\ude00")").stringValue(), "\xC3\xA9\xF0\x9F\x98\x80");
  EXPECT_EQ(parse("\"caf\xC3\xA9\"").stringValue(), "caf\xC3\xA9");
  EXPECT_FALSE(errorOf(R"("\ud83d")").empty());
  EXPECT_FALSE(errorOf(R"("\ude00")").empty());
  EXPECT_FALSE(errorOf(R"("\u0000")").empty()) << "NUL cannot travel";
  EXPECT_FALSE(errorOf("\"\xFF\"").empty());
  EXPECT_FALSE(errorOf("\"tab\there\"").empty()) << "raw control characters";
  EXPECT_FALSE(errorOf(R"("\q")").empty());
  EXPECT_FALSE(errorOf(R"("open)").empty());
}

TEST(VexdctlJson, RefusesMalformedDocumentsWithAPosition) {
  EXPECT_NE(errorOf(R"({"a": 1,})").find("offset"), std::string::npos);
  EXPECT_FALSE(errorOf(R"({"a" 1})").empty());
  EXPECT_FALSE(errorOf(R"({"a": 1, "a": 2})").empty());
  EXPECT_FALSE(errorOf(R"({a: 1})").empty());
  EXPECT_FALSE(errorOf("[1, 2").empty());
  EXPECT_FALSE(errorOf("true false").empty());
  EXPECT_FALSE(errorOf("").empty());
  EXPECT_FALSE(errorOf(std::string(40, '[') + std::string(40, ']')).empty());
}

TEST(VexdctlJson, WritesWhatJsonCannotSayAsText) {
  ovix::Object m = ovix::Object::makeDictionary();
  m.setData("Data", ovix::Bytes{0x00, 0xAB});
  m.setString("s", std::string("q\"\x01", 3));
  m.setDouble("nan", std::numeric_limits<double>::quiet_NaN());
  m.setUuid("id", ovix::Uuid{0xde, 0xad, 0xbe, 0xef, 0, 1, 0, 2, 0, 3, 0, 4, 5, 6, 7, 8});
  EXPECT_EQ(toJson(m), R"({"Data": "00ab", "s": "q\"\u0001", "nan": null, )"
                       R"("id": "deadbeef-0001-0002-0003-000405060708"})");
}

}  // namespace
}  // namespace vexdctl
