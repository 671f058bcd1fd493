#include "ovix/WireFormat.h"

#include <gtest/gtest.h>

#include <cmath>

#include "ovix/FrameReader.h"
#include "ovix/TestSupport.h"
#include "ovix/Utf8.h"

namespace ovix::wire {
namespace {

// Hand-built payload bytes, for frames the encoder would refuse to make.
struct Payload {
  Bytes b;
  Payload& u8(std::uint8_t v) {
    b.push_back(v);
    return *this;
  }
  Payload& u32(std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    return *this;
  }
  Payload& str(std::string_view s) {
    u32(static_cast<std::uint32_t>(s.size()));
    b.insert(b.end(), s.begin(), s.end());
    return *this;
  }
};

Bytes frameOf(const Bytes& payload) {
  Bytes f = {'O', 'V', 'X', 'F', 1, 0, 0, 0};
  Payload len;
  len.u32(static_cast<std::uint32_t>(payload.size()));
  f.insert(f.end(), len.b.begin(), len.b.end());
  f.insert(f.end(), payload.begin(), payload.end());
  return f;
}

Bytes encode(const Object& m) {
  Bytes f;
  std::string why;
  EXPECT_TRUE(encodeFrame(m, f, &why)) << why;
  return f;
}

std::string decodeError(const Bytes& frame) {
  DecodeResult r = decodeFrame(frame);
  EXPECT_FALSE(r.message.has_value());
  return r.error;
}

// {"k": {"k": ... {}}} with `depth` dictionaries counting the top level.
Object nested(int depth) {
  Object d = Object::makeDictionary();
  for (int i = 1; i < depth; ++i) {
    Object outer = Object::makeDictionary();
    outer.set("k", std::move(d));
    d = std::move(outer);
  }
  return d;
}

TEST(OvixWireRoundTrip, EveryTypeWithEdgeValuesKeyOrderEmptinessAndNaN) {
  const Object m = testing::everyTypeMessage();
  DecodeResult r = decodeFrame(encode(m));
  ASSERT_TRUE(r.message) << r.error;
  EXPECT_EQ(*r.message, m) << r.message->description();
  // Order is part of the message: requests are served in the order written.
  std::vector<std::string> keys;
  r.message->getDictionary("dictionary")->apply([&](const std::string& k, const Object&) {
    keys.push_back(k);
    return true;
  });
  EXPECT_EQ(keys, (std::vector<std::string>{"z-first", "a-second"}));
  EXPECT_TRUE(std::signbit(r.message->getDouble("double")));

  Object empty = Object::makeDictionary();
  EXPECT_EQ(*decodeFrame(encode(empty)).message, empty);
  Object nan = Object::makeDictionary();
  nan.setDouble("x", std::numeric_limits<double>::quiet_NaN());
  EXPECT_TRUE(std::isnan(decodeFrame(encode(nan)).message->getDouble("x")));
}

TEST(OvixWireLayout, MatchesTheDocumentedBytes) {
  Object m = Object::makeDictionary();
  m.setBool("a", true);
  m.setInt64("n", -2);
  const Bytes expected = {'O',  'V',  'X',  'F',  0x01, 0x00, 0x00, 0x00,
                          0x19, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,   // two entries
                          0x01, 0x00, 0x00, 0x00, 'a',  0x01, 0x01,         // "a": true
                          0x01, 0x00, 0x00, 0x00, 'n',  0x02,               // "n": int64
                          0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};  // -2
  EXPECT_EQ(encode(m), expected);
}

TEST(OvixWireDepth, ThirtyTwoLevelsTravelThirtyThreeDoNot) {
  EXPECT_EQ(*decodeFrame(encode(nested(kMaxDepth))).message, nested(kMaxDepth));
  Bytes f;
  std::string why;
  EXPECT_FALSE(encodeFrame(nested(kMaxDepth + 1), f, &why));
  EXPECT_NE(why.find("deeper"), std::string::npos) << why;

  // Arrays count as levels too, and a hostile frame is refused on decode.
  Payload p;
  p.u32(1).str("k");
  for (int i = 1; i < kMaxDepth; ++i) p.u8(static_cast<std::uint8_t>(Tag::Array)).u32(1);
  p.u8(static_cast<std::uint8_t>(Tag::Null));
  EXPECT_TRUE(decodeFrame(frameOf(p.b)).message);
  Payload deep;
  deep.u32(1).str("k");
  for (int i = 1; i <= kMaxDepth; ++i) deep.u8(static_cast<std::uint8_t>(Tag::Array)).u32(1);
  deep.u8(static_cast<std::uint8_t>(Tag::Null));
  EXPECT_NE(decodeError(frameOf(deep.b)).find("deeper"), std::string::npos);
}

TEST(OvixWireDecode, RefusesBrokenHeaders) {
  Bytes good = encode(testing::everyTypeMessage());
  Bytes magic = good;
  magic[0] = 'X';
  EXPECT_EQ(decodeError(magic), "bad magic");
  Bytes version = good;
  version[4] = 2;
  EXPECT_NE(decodeError(version).find("version"), std::string::npos);
  Bytes reserved = good;
  reserved[7] = 1;
  EXPECT_NE(decodeError(reserved).find("reserved"), std::string::npos);
  // 16 MiB + 1 is refused from the header alone, before any payload.
  Bytes oversized = {'O', 'V', 'X', 'F', 1, 0, 0, 0, 0x01, 0x00, 0x00, 0x01};
  EXPECT_FALSE(
      decodeHeader(std::span<const std::uint8_t, kHeaderSize>(oversized.data(), kHeaderSize)).ok);
  Bytes limit = {'O', 'V', 'X', 'F', 1, 0, 0, 0, 0x00, 0x00, 0x00, 0x01};
  EXPECT_TRUE(
      decodeHeader(std::span<const std::uint8_t, kHeaderSize>(limit.data(), kHeaderSize)).ok);
}

TEST(OvixWireDecode, EveryTruncationOfAValidFrameFailsCleanly) {
  const Bytes good = encode(testing::everyTypeMessage());
  for (std::size_t n = 0; n < good.size(); ++n) {
    EXPECT_FALSE(decodeFrame(std::span(good.data(), n)).message) << n;
  }
  Bytes longer = good;
  longer.push_back(0);
  EXPECT_FALSE(decodeFrame(longer).message);
  // A payload that ends early but whose header length matches is truncated
  // inside the dictionary; one with spare bytes after it is refused as well.
  Bytes cut(good.begin() + kHeaderSize, good.end() - 1);
  EXPECT_FALSE(decodeFrame(frameOf(cut)).message);
  Bytes spare(good.begin() + kHeaderSize, good.end());
  spare.push_back(0);
  EXPECT_EQ(decodeError(frameOf(spare)), "bytes left after the dictionary");
}

TEST(OvixWireDecode, RefusesHostileContents) {
  const auto tag = [](Tag t) { return static_cast<std::uint8_t>(t); };
  struct Case {
    const char* name;
    Payload payload;
  };
  std::vector<Case> cases;
  cases.push_back({"huge entry count", Payload().u32(0xFFFFFFFF)});
  cases.push_back({"huge array count", Payload().u32(1).str("a").u8(tag(Tag::Array)).u32(~0u)});
  cases.push_back({"huge string", Payload().u32(1).str("a").u8(tag(Tag::String)).u32(~0u)});
  cases.push_back({"huge data", Payload().u32(1).str("a").u8(tag(Tag::Data)).u32(~0u)});
  cases.push_back({"unknown tag", Payload().u32(1).str("a").u8(0x0B)});
  cases.push_back({"boolean 2", Payload().u32(1).str("a").u8(tag(Tag::Bool)).u8(2)});
  cases.push_back({"short uuid", Payload().u32(1).str("a").u8(tag(Tag::Uuid)).u32(0)});
  cases.push_back(
      {"duplicate key", Payload().u32(2).str("a").u8(tag(Tag::Null)).str("a").u8(tag(Tag::Null))});
  cases.push_back({"overlong '/' in key", Payload().u32(1).str("\xC0\xAF").u8(tag(Tag::Null))});
  cases.push_back(
      {"surrogate in value", Payload().u32(1).str("a").u8(tag(Tag::String)).str("\xED\xA0\x80")});
  cases.push_back({"NUL in key", Payload().u32(1).str(std::string_view("a\0b", 3)).u8(0)});
  cases.push_back(
      {"cut sequence", Payload().u32(1).str("a").u8(tag(Tag::String)).str("ok\xE2\x82")});
  for (const Case& c : cases) {
    DecodeResult r = decodeFrame(frameOf(c.payload.b));
    EXPECT_FALSE(r.message) << c.name;
    EXPECT_FALSE(r.error.empty()) << c.name;
  }
}

TEST(OvixWireDecode, BoundsTheNumberOfObjects) {
  // Null elements cost a byte each on the wire and far more in memory.
  Payload p;
  p.u32(1).str("a").u8(static_cast<std::uint8_t>(Tag::Array)).u32(kMaxObjects);
  p.b.resize(p.b.size() + kMaxObjects, static_cast<std::uint8_t>(Tag::Null));
  EXPECT_EQ(decodeError(frameOf(p.b)), "too many objects");
}

TEST(OvixWireEncode, RefusesWhatCannotTravel) {
  Bytes f;
  std::string why;
  EXPECT_FALSE(encodeFrame(Object::makeArray(), f, &why));
  EXPECT_NE(why.find("dictionary"), std::string::npos);

  Object withError = Object::makeDictionary();
  withError.set("e", errorConnectionInvalid());
  EXPECT_FALSE(encodeFrame(withError, f));
  Object withConnection = Object::makeDictionary();
  withConnection.set("c", Object::makeConnection(nullptr));
  EXPECT_FALSE(encodeFrame(withConnection, f));

  Object badKey = Object::makeDictionary();
  badKey.setBool("\xFF", true);
  EXPECT_FALSE(encodeFrame(badKey, f));
  Object badValue = Object::makeDictionary();
  badValue.setString("k", "\xC3");
  EXPECT_FALSE(encodeFrame(badValue, f));

  Object big = Object::makeDictionary();
  big.setData("d", Bytes(kMaxPayload - 14, 0));  // payload = limit exactly
  EXPECT_TRUE(encodeFrame(big, f));
  EXPECT_EQ(f.size(), kHeaderSize + kMaxPayload);
  big.setData("d", Bytes(kMaxPayload - 13, 0));
  EXPECT_FALSE(encodeFrame(big, f, &why));
  EXPECT_TRUE(f.empty());
}

TEST(OvixFrameReader, ReassemblesFramesSplitAnywhere) {
  Object a = Object::makeDictionary();
  a.setInt64("n", 1);
  Object b = testing::everyTypeMessage();
  Bytes stream = encode(a);
  Bytes second = encode(b);
  stream.insert(stream.end(), second.begin(), second.end());
  stream.insert(stream.end(), second.begin(), second.end());

  FrameReader reader;
  std::vector<Object> got;
  for (std::uint8_t byte : stream) {
    reader.append(&byte, 1);
    Object m;
    std::string error;
    while (reader.next(m, error) == FrameReader::Status::Frame) got.push_back(m);
    ASSERT_TRUE(error.empty()) << error;
  }
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(got[0], a);
  EXPECT_EQ(got[2], b);
  EXPECT_FALSE(reader.holdsPartialFrame());
}

TEST(OvixFrameReader, JudgesTheHeaderBeforeThePayloadArrives) {
  FrameReader reader;
  const Bytes header = {'O', 'V', 'X', 'F', 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
  reader.append(header.data(), header.size());
  Object m;
  std::string error;
  EXPECT_EQ(reader.next(m, error), FrameReader::Status::Error);
  EXPECT_NE(error.find("exceeds"), std::string::npos);
}

TEST(OvixUtf8, AcceptsOnlyWellFormedText) {
  EXPECT_TRUE(isValidUtf8(""));
  EXPECT_TRUE(isValidUtf8("plain ascii"));
  EXPECT_TRUE(isValidUtf8("\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF4\x8F\xBF\xBF"));
  EXPECT_FALSE(isValidUtf8(std::string_view("\0", 1)));
  EXPECT_FALSE(isValidUtf8("\xC1\xBF"));          // overlong two-byte
  EXPECT_FALSE(isValidUtf8("\xE0\x9F\xBF"));      // overlong three-byte
  EXPECT_FALSE(isValidUtf8("\xF0\x8F\xBF\xBF"));  // overlong four-byte
  EXPECT_FALSE(isValidUtf8("\xF4\x90\x80\x80"));  // above U+10FFFF
  EXPECT_FALSE(isValidUtf8("\xED\xBF\xBF"));      // surrogate
  EXPECT_FALSE(isValidUtf8("\x80"));              // stray continuation
  EXPECT_FALSE(isValidUtf8("\xF8\x88\x80\x80\x80"));
  EXPECT_FALSE(isValidUtf8("a\xE2\x82"));  // cut at the end
}

}  // namespace
}  // namespace ovix::wire
