#include "platform/BinaryPropertyListWriter.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/PropertyList.h"

namespace platform {
namespace {

TEST(BinaryPropertyListWriterTest, WritesChildrenFirstWithATrailerThatFindsThem) {
  auto bytes = encodeBinaryPropertyList(Dictionary{{"a", 1}});
  ASSERT_TRUE(bytes);
  const Data expected = {'b',  'p',  'l',  'i', 's', 't', '0', '0', 0x51, 'a',  // 0: "a"
                         0x10, 0x01,                                            // 1: 1
                         0xD1, 0x00, 0x01,                                      // 2: {0: 1}
                         0x08, 0x0A, 0x0C,                                      // offsets
                         0,    0,    0,    0,   0,   0,   1,   1,   0,    0,
                         0,    0,    0,    0,   0,   3,              // objects
                         0,    0,    0,    0,   0,   0,   0,   2,    // top
                         0,    0,    0,    0,   0,   0,   0,   15};  // offset table
  EXPECT_EQ(*bytes, expected);
}

TEST(BinaryPropertyListWriterTest, ThePlatformReaderGetsTheSameValueBack) {
  Dictionary record{
      {"QLXManifestFileAttributes", Dictionary{{"FileType", "Regular"},
                                               {"FileSize", std::uint64_t{1} << 40},
                                               {"FileOwnerAccountID", 501},
                                               {"FileModificationDate", Date{1700000000.123456}},
                                               {"FileImmutable", false}}},
      {"QLXManifestFileExtendedAttributes", Dictionary{{"user.k", Data{0, 1}}}},
      {"QLXManifestFileHash", Data(20, 7)},
      {"QLXManifestSymbolicLinkTargetFile", "caf\xc3\xa9"}};
  Dictionary manifest{
      {"every other type", Array{true, 2.5, Data(40, 0xAB), Array{},
                                 Array{0, 255, 256, 65536, std::int64_t{1} << 40, -1, INT64_MIN,
                                       std::uint64_t{UINT64_MAX}},
                                 "\xf0\x9f\x98\x80 and a long ascii tail", Dictionary{}}}};
  // Enough objects for two-byte references.
  for (int i = 0; i < 300; ++i) manifest.set("/f" + std::to_string(i), record);
  auto bytes = encodeBinaryPropertyList(manifest);
  ASSERT_TRUE(bytes);
  auto back = parsePropertyList(*bytes);
  ASSERT_TRUE(back) << back.error().description;
  EXPECT_TRUE(*back == Value(manifest));
  EXPECT_EQ(back->dictionary()->keys(), manifest.keys());
}

TEST(BinaryPropertyListWriterTest, RefusesTextThatIsNotUtf8) {
  for (std::string bad : {"\xff", "a\xc3", "\xed\xa0\x80", "\xc0\xaf"}) {
    EXPECT_FALSE(encodeBinaryPropertyList(Value(bad))) << bad;
    EXPECT_FALSE(encodeBinaryPropertyList(Dictionary{{bad, 1}})) << bad;
  }
  Value deep = Array{};
  for (int i = 0; i < 600; ++i) deep = Array{deep};
  EXPECT_FALSE(encodeBinaryPropertyList(deep));
}

}  // namespace
}  // namespace platform
