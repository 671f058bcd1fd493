#include "platform/BinaryPropertyListWriter.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "platform/PropertyList.h"
#include "platform/testing/TempDirectory.h"

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
  Dictionary manifest;
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

// Python's own reader is the independent judge of the format.
TEST(BinaryPropertyListWriterTest, AnIndependentReaderGetsEveryTypeBack) {
  Dictionary big;
  for (int i = 0; i < 300; ++i) big.set("key" + std::to_string(i), i * 1000);
  Value value = Dictionary{
      {"bools", Array{true, false}},
      {"ints",
       Array{0, 255, 256, 65536, std::int64_t{1} << 40, -1, INT64_MIN, std::uint64_t{UINT64_MAX}}},
      {"double", 2.5},
      {"date", Date{978307200.0 + 86400.5}},
      {"data", Data(40, 0xAB)},
      {"short", Data{1, 2}},
      {"text", "caf\xc3\xa9 \xf0\x9f\x98\x80 and a long ascii tail"},
      {"same", Array{"repeated", "repeated"}},
      {"big", big},
      {"empty", Dictionary{}},
  };
  auto bytes = encodeBinaryPropertyList(value);
  ASSERT_TRUE(bytes) << bytes.error().description;
  testing::TempDirectory dir;
  std::string file = dir / "v.plist";
  std::FILE* f = std::fopen(file.c_str(), "wb");
  std::fwrite(bytes->data(), 1, bytes->size(), f);
  std::fclose(f);
  std::string script =
      "import plistlib,sys; d=plistlib.load(open(sys.argv[1],'rb')); "
      "print(d['bools'], d['ints'], d['double'], d['date'].isoformat(), d['data'].hex(), "
      "d['short'].hex(), d['text'], d['same'], len(d['big']), d['big']['key299'], "
      "list(d['big'])[:3], d['empty'], list(d)[0])";
  std::string out;
  if (std::FILE* p = ::popen(("python3 -c \"" + script + "\" " + file).c_str(), "r")) {
    char buf[4096];
    while (std::size_t n = std::fread(buf, 1, sizeof buf, p)) out.append(buf, n);
    ::pclose(p);
  }
  std::string dataHex;
  for (int i = 0; i < 40; ++i) dataHex += "ab";
  EXPECT_EQ(out,
            "[True, False] [0, 255, 256, 65536, 1099511627776, -1, -9223372036854775808, "
            "18446744073709551615] 2.5 2001-01-02T00:00:00.500000 " +
                dataHex +
                " 0102 caf\xc3\xa9 \xf0\x9f\x98\x80 and a long ascii tail ['repeated', "
                "'repeated'] 300 299000 ['key0', 'key1', 'key2'] {} bools\n");
}

}  // namespace
}  // namespace platform
