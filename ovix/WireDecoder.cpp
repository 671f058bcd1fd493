// Decoding half of the frame codec (WireFormat.h). Every length and count is
// checked against the bytes that remain before anything is allocated, and
// recursion is bounded by kMaxDepth, so no frame can crash or balloon us.
#include <bit>
#include <cstring>

#include "ovix/Utf8.h"
#include "ovix/WireFormat.h"

namespace ovix::wire {

namespace {

class Decoder {
 public:
  explicit Decoder(std::span<const std::uint8_t> in) : p_(in.data()), end_(in.data() + in.size()) {}

  std::optional<Object> dictionaryBody(int depth) {
    if (depth > kMaxDepth) return fail("nested deeper than " + std::to_string(kMaxDepth));
    std::uint32_t count;
    if (!get32(count)) return std::nullopt;
    // Each entry needs at least a key length and a tag.
    if (count > remaining() / 5) return fail("entry count exceeds the frame");
    Object dict = Object::makeDictionary();
    for (std::uint32_t i = 0; i < count; ++i) {
      std::string key;
      if (!string(key)) return std::nullopt;
      if (dict.get(key)) return fail("duplicate key");
      std::optional<Object> v = value(depth);
      if (!v) return std::nullopt;
      dict.set(std::move(key), std::move(*v));
    }
    return dict;
  }

  bool atEnd() const { return p_ == end_; }
  std::size_t objects() const { return objects_; }
  std::string error;

 private:
  std::optional<Object> value(int depth) {
    if (++objects_ > kMaxObjects) return fail("too many objects");
    std::uint8_t t;
    if (!get8(t)) return std::nullopt;
    std::uint64_t u;
    switch (static_cast<Tag>(t)) {
      case Tag::Null:
        return Object::makeNull();
      case Tag::Bool: {
        std::uint8_t b;
        if (!get8(b)) return std::nullopt;
        if (b > 1) return fail("boolean byte is neither 0 nor 1");
        return Object::makeBool(b == 1);
      }
      case Tag::Int64:
        if (!get64(u)) return std::nullopt;
        return Object::makeInt64(static_cast<std::int64_t>(u));
      case Tag::UInt64:
        if (!get64(u)) return std::nullopt;
        return Object::makeUInt64(u);
      case Tag::Double:
        if (!get64(u)) return std::nullopt;
        return Object::makeDouble(std::bit_cast<double>(u));
      case Tag::String: {
        std::string s;
        if (!string(s)) return std::nullopt;
        return Object::makeString(s);
      }
      case Tag::Data: {
        std::uint32_t n;
        if (!get32(n)) return std::nullopt;
        if (n > remaining()) return fail("data length exceeds the frame");
        Bytes d(p_, p_ + n);
        p_ += n;
        return Object::makeData(std::move(d));
      }
      case Tag::Date:
        if (!get64(u)) return std::nullopt;
        return Object::makeDate(static_cast<std::int64_t>(u));
      case Tag::Uuid: {
        if (remaining() < 16) return fail("truncated uuid");
        Uuid id;
        std::memcpy(id.data(), p_, 16);
        p_ += 16;
        return Object::makeUuid(id);
      }
      case Tag::Array: {
        if (depth + 1 > kMaxDepth) return fail("nested deeper than " + std::to_string(kMaxDepth));
        std::uint32_t count;
        if (!get32(count)) return std::nullopt;
        // Each element needs at least its tag.
        if (count > remaining()) return fail("element count exceeds the frame");
        Object array = Object::makeArray();
        for (std::uint32_t i = 0; i < count; ++i) {
          std::optional<Object> v = value(depth + 1);
          if (!v) return std::nullopt;
          array.append(std::move(*v));
        }
        return array;
      }
      case Tag::Dictionary:
        return dictionaryBody(depth + 1);
    }
    return fail("unknown type tag " + std::to_string(t));
  }

  bool string(std::string& out) {
    std::uint32_t n;
    if (!get32(n)) return false;
    if (n > remaining()) return reject("string length exceeds the frame");
    std::string_view s(reinterpret_cast<const char*>(p_), n);
    if (!isValidUtf8(s)) return reject("string is not valid UTF-8");
    out.assign(s);
    p_ += n;
    return true;
  }

  std::size_t remaining() const { return static_cast<std::size_t>(end_ - p_); }

  bool get8(std::uint8_t& v) {
    if (remaining() < 1) return reject();
    v = *p_++;
    return true;
  }
  bool get32(std::uint32_t& v) {
    if (remaining() < 4) return reject();
    v = 0;
    for (int i = 0; i < 4; ++i) v |= std::uint32_t{p_[i]} << (8 * i);
    p_ += 4;
    return true;
  }
  bool get64(std::uint64_t& v) {
    if (remaining() < 8) return reject();
    v = 0;
    for (int i = 0; i < 8; ++i) v |= std::uint64_t{p_[i]} << (8 * i);
    p_ += 8;
    return true;
  }

  bool reject(std::string why = "truncated payload") {
    if (error.empty()) error = std::move(why);
    return false;
  }
  std::nullopt_t fail(std::string why) {
    reject(std::move(why));
    return std::nullopt;
  }

  const std::uint8_t* p_;
  const std::uint8_t* end_;
  std::size_t objects_ = 1;  // the top-level dictionary
};

}  // namespace

HeaderResult decodeHeader(std::span<const std::uint8_t, kHeaderSize> h) {
  HeaderResult r;
  if (std::memcmp(h.data(), kMagic, 4) != 0) {
    r.error = "bad magic";
    return r;
  }
  const std::uint16_t version = static_cast<std::uint16_t>(h[4] | (h[5] << 8));
  if (version != kVersion) {
    r.error = "unsupported version " + std::to_string(version);
    return r;
  }
  if (h[6] != 0 || h[7] != 0) {
    r.error = "reserved header bytes are not zero";
    return r;
  }
  std::uint32_t length = 0;
  for (int i = 0; i < 4; ++i) length |= std::uint32_t{h[8 + i]} << (8 * i);
  if (length > kMaxPayload) {
    r.error = "payload of " + std::to_string(length) + " bytes exceeds the frame limit";
    return r;
  }
  r.ok = true;
  r.payloadLength = length;
  return r;
}

DecodeResult decodePayload(std::span<const std::uint8_t> payload) {
  DecodeResult r;
  if (payload.size() > kMaxPayload) {
    r.error = "payload exceeds the frame limit";
    return r;
  }
  Decoder decoder(payload);
  std::optional<Object> dict = decoder.dictionaryBody(1);
  if (dict && !decoder.atEnd()) {
    decoder.error = "bytes left after the dictionary";
    dict.reset();
  }
  if (dict) {
    r.message = std::move(dict);
    r.objects = decoder.objects();
  } else {
    r.error = decoder.error;
  }
  return r;
}

DecodeResult decodeFrame(std::span<const std::uint8_t> frame) {
  DecodeResult r;
  if (frame.size() < kHeaderSize) {
    r.error = "truncated header";
    return r;
  }
  HeaderResult h = decodeHeader(frame.first<kHeaderSize>());
  if (!h.ok) {
    r.error = h.error;
    return r;
  }
  if (frame.size() - kHeaderSize != h.payloadLength) {
    r.error = frame.size() - kHeaderSize < h.payloadLength ? "truncated payload"
                                                           : "bytes left after the payload";
    return r;
  }
  return decodePayload(frame.subspan(kHeaderSize));
}

}  // namespace ovix::wire
