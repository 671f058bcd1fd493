// Encoding half of the frame codec (WireFormat.h).
#include <bit>
#include <cstring>

#include "ovix/Utf8.h"
#include "ovix/WireFormat.h"

namespace ovix::wire {

namespace {

class Encoder {
 public:
  explicit Encoder(Bytes& out) : out_(out) {}

  bool dictionaryBody(const Object& dict, int depth) {
    if (!enter(depth)) return false;
    put32(static_cast<std::uint32_t>(dict.count()));
    return dict.apply([&](const std::string& key, const Object& value) {
      return string(key) && value_(value, depth);
    });
  }

  std::string error;

 private:
  bool enter(int depth) {
    if (depth > kMaxDepth) return fail("nested deeper than " + std::to_string(kMaxDepth));
    return true;
  }

  bool value_(const Object& v, int depth) {
    if (++objects_ > kMaxObjects) return fail("too many objects");
    if (out_.size() > kHeaderSize + kMaxPayload) return fail("larger than the frame limit");
    switch (v.type()) {
      case Type::Null:
        tag(Tag::Null);
        return true;
      case Type::Bool:
        tag(Tag::Bool);
        out_.push_back(v.boolValue() ? 1 : 0);
        return true;
      case Type::Int64:
        tag(Tag::Int64);
        put64(static_cast<std::uint64_t>(v.int64Value()));
        return true;
      case Type::UInt64:
        tag(Tag::UInt64);
        put64(v.uint64Value());
        return true;
      case Type::Double:
        tag(Tag::Double);
        put64(std::bit_cast<std::uint64_t>(v.doubleValue()));
        return true;
      case Type::String:
        tag(Tag::String);
        return string(v.stringValue());
      case Type::Data: {
        const Bytes& d = v.dataValue();
        if (d.size() > kMaxPayload) return fail("data larger than the frame limit");
        tag(Tag::Data);
        put32(static_cast<std::uint32_t>(d.size()));
        out_.insert(out_.end(), d.begin(), d.end());
        return true;
      }
      case Type::Date:
        tag(Tag::Date);
        put64(static_cast<std::uint64_t>(v.dateValue()));
        return true;
      case Type::Uuid: {
        tag(Tag::Uuid);
        const Uuid u = v.uuidValue();
        out_.insert(out_.end(), u.begin(), u.end());
        return true;
      }
      case Type::Array:
        if (!enter(depth + 1)) return false;
        tag(Tag::Array);
        put32(static_cast<std::uint32_t>(v.count()));
        return v.applyArray(
            [&](std::size_t, const Object& item) { return value_(item, depth + 1); });
      case Type::Dictionary:
        tag(Tag::Dictionary);
        return dictionaryBody(v, depth + 1);
      case Type::Connection:
      case Type::Error:
        return fail(std::string("a ") + typeName(v.type()) + " cannot be sent");
    }
    return fail("unknown type");
  }

  bool string(const std::string& s) {
    if (s.size() > kMaxPayload) return fail("string larger than the frame limit");
    if (!isValidUtf8(s)) return fail("string is not valid UTF-8");
    put32(static_cast<std::uint32_t>(s.size()));
    out_.insert(out_.end(), s.begin(), s.end());
    return true;
  }

  void tag(Tag t) { out_.push_back(static_cast<std::uint8_t>(t)); }
  void put32(std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  void put64(std::uint64_t v) {
    for (int i = 0; i < 8; ++i) out_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }
  bool fail(std::string why) {
    if (error.empty()) error = std::move(why);
    return false;
  }

  Bytes& out_;
  std::size_t objects_ = 1;  // the top-level dictionary
};

}  // namespace

bool encodeFrame(const Object& message, Bytes& frame, std::string* error) {
  frame.clear();
  if (!message.isDictionary()) {
    if (error)
      *error = std::string("a message must be a dictionary, not a ") + typeName(message.type());
    return false;
  }
  frame.resize(kHeaderSize);
  Encoder encoder(frame);
  bool ok = encoder.dictionaryBody(message, 1);
  const std::size_t payload = frame.size() - kHeaderSize;
  if (ok && payload > kMaxPayload) {
    ok = false;
    encoder.error = "larger than the frame limit";
  }
  if (!ok) {
    if (error) *error = encoder.error;
    frame.clear();
    return false;
  }
  std::memcpy(frame.data(), kMagic, 4);
  frame[4] = static_cast<std::uint8_t>(kVersion);
  frame[5] = static_cast<std::uint8_t>(kVersion >> 8);
  frame[6] = frame[7] = 0;
  for (int i = 0; i < 4; ++i) frame[8 + i] = static_cast<std::uint8_t>(payload >> (8 * i));
  return true;
}

}  // namespace ovix::wire
