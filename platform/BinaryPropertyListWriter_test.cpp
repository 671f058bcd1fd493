#include "platform/BinaryPropertyListWriter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "platform/BinaryPropertyListStream.h"
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

// A stream into memory, read back from there too.
struct StreamInMemory {
  Data out;
  BinaryPropertyListStream stream{[this](std::span<const std::uint8_t> bytes) {
                                    out.insert(out.end(), bytes.begin(), bytes.end());
                                    return Status();
                                  },
                                  [this](std::uint64_t offset, std::span<std::uint8_t> buffer) {
                                    if (offset + buffer.size() > out.size())
                                      return Status(Error::posix(5, "short"));
                                    std::copy_n(out.begin() + offset, buffer.size(),
                                                buffer.begin());
                                    return Status();
                                  }};
};

TEST(BinaryPropertyListStreamTest, EntriesReadBackInOrderWithRepeatedKeysReplacedInPlace) {
  StreamInMemory sink;
  Dictionary expected;
  auto record = [](int i) {
    return Value(
        Dictionary{{"QLXManifestFileAttributes",
                    Dictionary{{"FileType", i % 2 ? "Regular" : "Directory"},
                               {"FileSize", std::uint64_t(i) * 977},
                               {"FileOwnerAccountName", i % 3 ? "mobile" : "r\xc3\xb6\xc3\xb6t"},
                               {"FileModificationDate", Date{1700000000.5 + i}},
                               {"FileImmutable", i % 5 == 0}}},
                   {"QLXManifestFileExtendedAttributes", Dictionary{}},
                   {"QLXManifestFileHash", Data(20, static_cast<std::uint8_t>(i))},
                   {"QLXManifestSymbolicLinkTargetFile", ""}});
  };
  for (int i = 0; i < 4000; ++i) {
    std::string key = "/d" + std::to_string(i % 9) + "/f" + std::to_string(i);
    ASSERT_TRUE(sink.stream.add(key, record(i)));
    expected.set(key, record(i));
  }
  EXPECT_GT(sink.out.size(), 0u);  // the first entries went out already
  // A key met again keeps its place, whether it was written out or not.
  for (std::string key : {"/d2/f2", "/d3/f3999", "/d0/f9"}) {
    ASSERT_TRUE(sink.stream.add(key, Value("replaced")));
    expected.set(key, Value("replaced"));
  }
  ASSERT_TRUE(sink.stream.add("/", Array{Dictionary{}, Array{}, -1, 2.5}));
  expected.set("/", Array{Dictionary{}, Array{}, -1, 2.5});
  ASSERT_TRUE(sink.stream.finish());

  auto back = parsePropertyList(sink.out);
  ASSERT_TRUE(back) << back.error().description;
  EXPECT_TRUE(*back == Value(expected));
  EXPECT_EQ(back->dictionary()->keys(), expected.keys());
  // Repeated small values are one object each, so the file is smaller than
  // the whole-value encoding of the same dictionary.
  auto whole = encodeBinaryPropertyList(expected);
  ASSERT_TRUE(whole);
  EXPECT_LT(sink.out.size(), whole->size());
}

TEST(BinaryPropertyListStreamTest, AnEmptyStreamIsAnEmptyDictionaryAndBadTextStopsIt) {
  StreamInMemory empty;
  ASSERT_TRUE(empty.stream.finish());
  auto back = parsePropertyList(empty.out);
  ASSERT_TRUE(back);
  EXPECT_TRUE(*back == Value(Dictionary{}));

  StreamInMemory bad;
  ASSERT_TRUE(bad.stream.add("/ok", 1));
  EXPECT_FALSE(bad.stream.add("/bad\xff", 1));
  EXPECT_FALSE(bad.stream.add("/ok2", Dictionary{{"k", "\xc0\xaf"}}));
  EXPECT_FALSE(bad.stream.finish());
}

}  // namespace
}  // namespace platform
