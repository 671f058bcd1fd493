#include "platform/PropertyList.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "platform/linux/PlistInputCheck.h"
#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

using testing::TempDirectory;

// Value's own == lets numbers of any type match (true == 1); these tests
// need the stored type to survive too.
void expectIdentical(const Value& got, const Value& want, const std::string& where = "/") {
  ASSERT_EQ(got.type(), want.type()) << "type differs at " << where;
  switch (want.type()) {
    case Value::Type::Array:
      ASSERT_EQ(got.array()->size(), want.array()->size()) << where;
      for (std::size_t i = 0; i < want.array()->size(); ++i)
        expectIdentical((*got.array())[i], (*want.array())[i], where + std::to_string(i) + "/");
      break;
    case Value::Type::Dictionary:
      ASSERT_EQ(got.dictionary()->keys(), want.dictionary()->keys()) << "key order at " << where;
      for (const auto& [key, value] : *want.dictionary())
        expectIdentical(*got.dictionary()->find(key), value, where + key + "/");
      break;
    case Value::Type::Date:
      // Binary files hold a double since 2001; that is the value to match.
      EXPECT_EQ(got.date()->referenceSeconds(), want.date()->referenceSeconds()) << where;
      break;
    default:
      EXPECT_TRUE(got == want) << where << ": " << got.description() << " vs "
                               << want.description();
  }
}

Value sample(bool subSecondDates) {
  return Dictionary{
      {"zeta", true},
      {"alpha", false},
      {"neg", std::int64_t{-42}},
      {"min", std::int64_t{INT64_MIN}},
      {"max", std::int64_t{INT64_MAX}},
      {"above", std::uint64_t{1} << 63},
      {"big", std::uint64_t{UINT64_MAX}},
      {"real", 0.1},
      {"tiny", -2.5e-300},
      {"text",
       "Gr\xc3\xbc\xc3\x9f"
       "e \xe2\x9c\x93 \xf0\x9f\x98\x80"},
      {"markup", "<a & 'b'> \"c\""},
      {"empty", ""},
      {"dup1", "same"},
      {"dup2", "same"},
      {"data", Data{0x00, 0x01, 0xff}},
      {"nodata", Data{}},
      {"date", Date::fromUnix(1772714096, subSecondDates ? 789000000 : 0)},  // 2026-03-05
      {"before2001", Date::fromUnix(946684800, subSecondDates ? 250000000 : 0)},
      {"nested", Array{1, Array{2, Dictionary{{"k", "v"}}}, Dictionary{}, Array{}}},
      {"order", Dictionary{{"c", 1}, {"a", 2}, {"b", 3}}},
  };
}

TEST(PropertyListTest, BinaryRoundTripKeepsTypesOrderAndSubSecondDates) {
  Value want = sample(true);
  auto bytes = writeBinaryPropertyList(want);
  ASSERT_TRUE(bytes) << bytes.error().description;
  auto got = parsePropertyList(*bytes);
  ASSERT_TRUE(got) << got.error().description;
  expectIdentical(*got, want);
  // Scalars may stand at the top level too.
  for (const Value& v : {Value(true), Value(std::int64_t{-1}), Value("x"), Value(Data{})}) {
    auto scalar = writeBinaryPropertyList(v);
    ASSERT_TRUE(scalar);
    auto back = parsePropertyList(*scalar);
    ASSERT_TRUE(back) << v.description();
    expectIdentical(*back, v);
  }
}

TEST(PropertyListTest, XmlRoundTripKeepsTypesAndOrder) {
  Value want = sample(false);
  auto text = writeXmlPropertyList(want);
  ASSERT_TRUE(text) << text.error().description;
  std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(text->data()),
                                      text->size());
  auto got = parsePropertyList(bytes);
  ASSERT_TRUE(got) << got.error().description;
  expectIdentical(*got, want);
}

TEST(PropertyListTest, WritingRefusesWhatTheFormatCannotHold) {
  EXPECT_FALSE(writeBinaryPropertyList(Value()));
  EXPECT_FALSE(writeBinaryPropertyList(Value(Array{1, Value()})));
  EXPECT_FALSE(writeBinaryPropertyList(Value(std::string("a\0b", 3))));
  EXPECT_FALSE(writeBinaryPropertyList(Value(Dictionary{{std::string("k\0", 2), 1}})));
  EXPECT_FALSE(writeBinaryPropertyList(Value("bad \xff\xfe utf-8")));
  EXPECT_FALSE(writeBinaryPropertyList(Value("cut \xc3")));
  EXPECT_FALSE(writeXmlPropertyList(Value(Dictionary{{"\xed\xa0\x80", 1}})));  // surrogate
  // Binary holds any date; XML's four-digit years end in 9999.
  EXPECT_TRUE(writeBinaryPropertyList(Value(Date{1e12})));
  EXPECT_FALSE(writeXmlPropertyList(Value(Date{1e12})));
}

// A binary property list of the given objects (object 0 on top), whose
// references are refSize bytes wide.
Data binaryFrom(const std::vector<Data>& objects, std::uint8_t refSize) {
  Data out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  auto putBig = [&](std::uint64_t v, int bytes) {
    for (int s = 8 * (bytes - 1); s >= 0; s -= 8) out.push_back(static_cast<std::uint8_t>(v >> s));
  };
  std::vector<std::uint64_t> offsets;
  for (const Data& o : objects) {
    offsets.push_back(out.size());
    out.insert(out.end(), o.begin(), o.end());
  }
  std::uint64_t table = out.size();
  for (auto o : offsets) putBig(o, 4);
  out.insert(out.end(), {0, 0, 0, 0, 0, 0, 4, refSize});
  putBig(objects.size(), 8);
  putBig(0, 8);
  putBig(table, 8);
  return out;
}

// Arrays nested `depth` deep.
Data nestedBinary(std::size_t depth) {
  std::vector<Data> objects;
  for (std::size_t i = 0; i + 1 < depth; ++i) {
    auto next = static_cast<std::uint32_t>(i + 1);
    objects.push_back({0xa1, static_cast<std::uint8_t>(next >> 24),
                       static_cast<std::uint8_t>(next >> 16), static_cast<std::uint8_t>(next >> 8),
                       static_cast<std::uint8_t>(next)});
  }
  objects.push_back({0xa0});
  return binaryFrom(objects, 4);
}

std::string nestedXml(std::size_t depth) {
  std::string s = "<?xml version=\"1.0\"?><!-- <array> --><plist version=\"1.0\">";
  for (std::size_t i = 0; i < depth; ++i) s += "<array>";
  s += "<string>leaf</string><array/>";
  for (std::size_t i = 0; i < depth; ++i) s += "</array>";
  return s + "</plist>";
}

std::span<const std::uint8_t> bytesOf(const std::string& s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

TEST(PropertyListTest, NestingIsBoundedInEveryFormat) {
  const auto limit = static_cast<std::size_t>(kMaxPropertyListDepth);
  // The innermost empty array of nestedXml adds one level.
  EXPECT_TRUE(parsePropertyList(nestedBinary(limit)));
  EXPECT_TRUE(parsePropertyList(bytesOf(nestedXml(limit - 1))));
  for (std::size_t depth : {limit + 1, std::size_t{200000}}) {
    auto binary = parsePropertyList(nestedBinary(depth));
    ASSERT_FALSE(binary);
    EXPECT_NE(binary.error().description.find("deeply"), std::string::npos);
    EXPECT_FALSE(parsePropertyList(bytesOf(nestedXml(depth))));
  }
  Value deep = Array{};
  for (std::size_t i = 1; i < limit; ++i) deep = Array{deep};
  EXPECT_TRUE(writeBinaryPropertyList(deep));
  EXPECT_FALSE(writeBinaryPropertyList(Value(Array{deep})));
}

TEST(PropertyListTest, MalformedInputIsAnErrorNeverACrash) {
  EXPECT_FALSE(parsePropertyList({}));
  EXPECT_FALSE(parsePropertyList(bytesOf("garbage")));
  EXPECT_FALSE(parsePropertyList(bytesOf("bplist00")));
  EXPECT_FALSE(parsePropertyList(bytesOf("<plist><dict><key>a</key>")));
  EXPECT_FALSE(parsePropertyList(bytesOf("<plist><array><!-- unterminated")));

  // An array that holds itself; a dictionary whose key is an array; a
  // reference past the last object; a string longer than the file.
  EXPECT_FALSE(parsePropertyList(binaryFrom({{0xa1, 0}}, 1)));
  EXPECT_FALSE(parsePropertyList(binaryFrom({{0xd1, 1, 2}, {0xa0}, {0x09}}, 1)));
  EXPECT_FALSE(parsePropertyList(binaryFrom({{0xa1, 7}}, 1)));
  EXPECT_FALSE(parsePropertyList(binaryFrom({{0x5f, 0x13, 0x7f, 0xff, 'a'}}, 1)));
  EXPECT_TRUE(parsePropertyList(binaryFrom({{0xd1, 1, 2}, {0x51, 'k'}, {0x09}}, 1)));

  Data valid = *writeBinaryPropertyList(sample(true));
  for (std::size_t cut = 0; cut < valid.size(); ++cut)
    EXPECT_FALSE(parsePropertyList(std::span(valid.data(), cut))) << cut;
  std::mt19937 rng(20260305);
  for (int round = 0; round < 3000; ++round) {
    Data mutated = valid;
    for (int flips = 1 + round % 4; flips > 0; --flips)
      mutated[rng() % mutated.size()] = static_cast<std::uint8_t>(rng());
    (void)parsePropertyList(mutated);
  }
}

TEST(PropertyListTest, SharedSubtreesCannotExpandWithoutBound) {
  // Each array holds the next one twice: 2^60 nodes once expanded.
  std::vector<Data> objects;
  for (std::uint8_t i = 1; i < 60; ++i) objects.push_back({0xa2, i, i});
  objects.push_back({0x09});
  Data out = binaryFrom(objects, 1);
  auto parsed = parsePropertyList(out);
  ASSERT_FALSE(parsed);
  EXPECT_NE(parsed.error().description.find("expands"), std::string::npos);
}

// Runs a Python script with the scratch directory as its argument.
int runPython(const TempDirectory& dir, const std::string& script) {
  std::ofstream(dir / "script.py") << script;
  std::string command = "python3 " + dir / "script.py" + " " + dir.path();
  return std::system(command.c_str());
}

const char* kPythonSample = R"(
import datetime, plistlib, sys
def sample(sub):
    f = 789000 if sub else 0
    return {"zeta": True, "alpha": False, "neg": -42, "min": -2**63, "max": 2**63 - 1,
            "above": 2**63, "big": 2**64 - 1, "real": 0.1, "tiny": -2.5e-300,
            "text": "Grüße ✓ 😀", "markup": "<a & 'b'> \"c\"", "empty": "",
            "dup1": "same", "dup2": "same", "data": b"\x00\x01\xff", "nodata": b"",
            "date": datetime.datetime(2026, 3, 5, 12, 34, 56, f),
            "before2001": datetime.datetime(2000, 1, 1, 0, 0, 0, 250000 if sub else 0),
            "nested": [1, [2, {"k": "v"}], {}, []], "order": {"c": 1, "a": 2, "b": 3}}
)";

TEST(PropertyListTest, PythonsPlistlibAndWeReadEachOthersFiles) {
  TempDirectory dir;
  auto binary = writeBinaryPropertyList(sample(true));
  auto xml = writeXmlPropertyList(sample(false));
  ASSERT_TRUE(binary && xml);
  std::ofstream(dir / "ours.bin", std::ios::binary)
      .write(reinterpret_cast<const char*>(binary->data()),
             static_cast<std::streamsize>(binary->size()));
  std::ofstream(dir / "ours.xml") << *xml;
  ASSERT_EQ(runPython(dir, std::string(kPythonSample) + R"(
d = sys.argv[1]
def same(got, want, where="/"):
    assert type(got) is type(want), f"{where}: {type(got)} vs {type(want)}"
    if isinstance(want, dict):
        assert list(got) == list(want), f"{where}: key order {list(got)}"
        for k in want: same(got[k], want[k], where + k + "/")
    elif isinstance(want, list):
        assert len(got) == len(want), where
        for i, (g, w) in enumerate(zip(got, want)): same(g, w, f"{where}{i}/")
    elif isinstance(want, datetime.datetime):
        assert abs((got - want).total_seconds()) < 2e-6, f"{where}: {got} vs {want}"
    else:
        assert got == want, f"{where}: {got!r} vs {want!r}"
same(plistlib.load(open(d + "/ours.bin", "rb")), sample(True))
same(plistlib.load(open(d + "/ours.xml", "rb")), sample(False))
open(d + "/py.bin", "wb").write(plistlib.dumps(sample(True), fmt=plistlib.FMT_BINARY, sort_keys=False))
open(d + "/py.xml", "wb").write(plistlib.dumps(sample(False), fmt=plistlib.FMT_XML, sort_keys=False))
)"),
            0);
  auto theirBinary = readPropertyListFile(dir / "py.bin");
  ASSERT_TRUE(theirBinary) << theirBinary.error().description;
  expectIdentical(*theirBinary, sample(true));
  auto theirXml = readPropertyListFile(dir / "py.xml");
  ASSERT_TRUE(theirXml) << theirXml.error().description;
  expectIdentical(*theirXml, sample(false));
}

TEST(PropertyListTest, ReadsWholeStreamsAndReportsMissingFiles) {
  TempDirectory dir;
  auto missing = readPropertyListFile(dir / "absent.plist");
  ASSERT_FALSE(missing);
  EXPECT_EQ(missing.error().code, ENOENT);
  EXPECT_NE(missing.error().description.find("absent.plist"), std::string::npos);

  // A pipe delivers the list in pieces; the reader waits for the end.
  Value big = Array(20000, Value("a string long enough to need several reads"));
  Data bytes = *writeBinaryPropertyList(big);
  std::string fifo = dir / "pipe";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::thread writer([&] {
    std::FILE* f = std::fopen(fifo.c_str(), "wb");
    for (std::size_t i = 0; i < bytes.size(); i += 1000)
      std::fwrite(bytes.data() + i, 1, std::min<std::size_t>(1000, bytes.size() - i), f);
    std::fclose(f);
  });
  auto got = readPropertyListFile(fifo);
  writer.join();
  ASSERT_TRUE(got) << got.error().description;
  EXPECT_EQ(got->array()->size(), 20000u);
}

}  // namespace
}  // namespace platform
