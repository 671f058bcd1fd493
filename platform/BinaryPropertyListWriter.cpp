#include "platform/BinaryPropertyListWriter.h"

#include <bit>
#include <cmath>
#include <cstring>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace platform {

namespace {

constexpr const char* kDomain = "PropertyListErrorDomain";
// Deeper values are refused rather than risk the stack.
constexpr int kMaxDepth = 512;

Error writeError(const std::string& what) { return Error{kDomain, 3, what}; }

}  // namespace

bool utf8ToUtf16(std::string_view s, std::vector<std::uint16_t>& out) {
  out.clear();
  for (std::size_t i = 0; i < s.size();) {
    auto c = static_cast<unsigned char>(s[i]);
    std::uint32_t cp;
    std::size_t n;
    if (c < 0x80) {
      cp = c, n = 1;
    } else if ((c & 0xE0) == 0xC0) {
      cp = c & 0x1F, n = 2;
    } else if ((c & 0xF0) == 0xE0) {
      cp = c & 0x0F, n = 3;
    } else if ((c & 0xF8) == 0xF0) {
      cp = c & 0x07, n = 4;
    } else {
      return false;
    }
    if (i + n > s.size()) return false;
    for (std::size_t k = 1; k < n; ++k) {
      auto cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (cc & 0x3F);
    }
    static const std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    if (cp >= 0x10000) {
      cp -= 0x10000;
      out.push_back(static_cast<std::uint16_t>(0xD800 + (cp >> 10)));
      out.push_back(static_cast<std::uint16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      out.push_back(static_cast<std::uint16_t>(cp));
    }
    i += n;
  }
  return true;
}

namespace {

unsigned bytesFor(std::uint64_t n) {
  if (n <= 0xFF) return 1;
  if (n <= 0xFFFF) return 2;
  if (n <= 0xFFFFFFFFull) return 4;
  return 8;
}

// Objects are written children first, so a container's references are
// known when it is written; only the references of the containers still
// open are held.
class Writer {
 public:
  Result<Data> run(const Value& top) {
    // References are sized for the objects there would be without sharing
    // equal strings: at most a byte wider than needed, and one cheap pass.
    std::uint64_t bound = 0;
    std::uint64_t sizeBound = 0;
    if (!countObjects(top, 0, bound, sizeBound)) return writeError("value nested too deeply");
    refSize_ = bytesFor(bound);
    // Room for the whole output up front, so it is never copied while it
    // grows; what sharing saves is never touched and costs no memory.
    out_.reserve(8 + sizeBound + bound * refSize_ + bound * 4 + 32);
    out_.assign({'b', 'p', 'l', 'i', 's', 't', '0', '0'});
    std::uint64_t topRef = 0;
    if (auto err = visit(top, 0, &topRef)) return *err;
    const std::uint64_t objects = next_;
    const std::uint64_t tableOffset = out_.size();
    if (tableOffset > UINT32_MAX) return writeError("property list too large");
    const unsigned offsetSize = bytesFor(tableOffset);
    for (std::uint64_t offset : offsets_) putBE(offset, offsetSize);
    for (int i = 0; i < 6; ++i) out_.push_back(0);
    out_.push_back(static_cast<std::uint8_t>(offsetSize));
    out_.push_back(static_cast<std::uint8_t>(refSize_));
    putBE(objects, 8);
    putBE(topRef, 8);
    putBE(tableOffset, 8);
    return std::move(out_);
  }

 private:
  // Counts the objects and bounds the bytes they take, before sharing.
  static bool countObjects(const Value& v, int depth, std::uint64_t& count, std::uint64_t& bytes) {
    if (depth > kMaxDepth) return false;
    ++count;
    bytes += 17;  // marker, a count or a sixteen-byte integer
    if (const std::string* str = v.string()) {
      bytes += 2 * str->size();  // UTF-16 at worst
    } else if (const Data* data = v.data()) {
      bytes += data->size();
    } else if (const Array* a = v.array()) {
      for (const Value& e : *a)
        if (!countObjects(e, depth + 1, count, bytes)) return false;
    } else if (const Dictionary* d = v.dictionary()) {
      for (const auto& [key, value] : *d) {
        ++count;
        bytes += 9 + 2 * key.size();
        if (!countObjects(value, depth + 1, count, bytes)) return false;
      }
    }
    return true;
  }

  // Writes the value's objects, children first; ref receives its number.
  // The references of open containers wait on one shared stack.
  std::optional<Error> visit(const Value& v, int depth, std::uint64_t* ref) {
    std::uint64_t self = 0;
    switch (v.type()) {
      case Value::Type::String:
        if (auto err = visitString(*v.string(), &self)) return err;
        break;
      case Value::Type::Array: {
        const Array& a = *v.array();
        const std::size_t base = refs_.size();
        refs_.resize(base + a.size());
        for (std::size_t i = 0; i < a.size(); ++i) {
          std::uint64_t r = 0;
          if (auto err = visit(a[i], depth + 1, &r)) return err;
          refs_[base + i] = r;
        }
        self = begin();
        putHeader(0xA, a.size());
        for (std::size_t i = base; i < refs_.size(); ++i) putBE(refs_[i], refSize_);
        refs_.resize(base);
        break;
      }
      case Value::Type::Dictionary: {
        const Dictionary& d = *v.dictionary();
        const std::size_t base = refs_.size();
        refs_.resize(base + 2 * d.size());
        std::size_t i = 0;
        for (const auto& [key, value] : d) {
          std::uint64_t k = 0, r = 0;
          if (auto err = visitString(key, &k)) return err;
          if (auto err = visit(value, depth + 1, &r)) return err;
          refs_[base + i] = k;
          refs_[base + d.size() + i] = r;
          ++i;
        }
        self = begin();
        putHeader(0xD, d.size());
        for (std::size_t j = base; j < refs_.size(); ++j) putBE(refs_[j], refSize_);
        refs_.resize(base);
        break;
      }
      default:
        self = begin();
        putScalar(v);
        break;
    }
    *ref = self;
    return std::nullopt;
  }

  // Equal strings (dictionary keys above all) are one object.
  std::optional<Error> visitString(std::string_view s, std::uint64_t* ref) {
    auto it = strings_.find(s);
    if (it != strings_.end()) {
      *ref = it->second;
      return std::nullopt;
    }
    *ref = begin();
    strings_.emplace(s, *ref);
    if (!putString(s)) return writeError("string is not UTF-8");
    return std::nullopt;
  }

  std::uint64_t begin() {
    offsets_.push_back(static_cast<std::uint32_t>(out_.size()));
    return next_++;
  }

  void putBE(std::uint64_t v, unsigned bytes) {
    for (unsigned i = bytes; i-- > 0;) out_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
  }

  void putInt(std::uint64_t v) {
    unsigned n = bytesFor(v);
    out_.push_back(static_cast<std::uint8_t>(0x10 | std::countr_zero(n)));
    putBE(v, n);
  }

  // A type nibble with a small count, or 0xF and the count as an integer.
  void putHeader(unsigned type, std::uint64_t count) {
    if (count < 15) {
      out_.push_back(static_cast<std::uint8_t>(type << 4 | count));
    } else {
      out_.push_back(static_cast<std::uint8_t>(type << 4 | 0xF));
      putInt(count);
    }
  }

  bool putString(std::string_view s) {
    bool ascii = true;
    for (unsigned char c : s) ascii = ascii && c < 0x80;
    if (ascii) {
      putHeader(0x5, s.size());
      out_.insert(out_.end(), s.begin(), s.end());
      return true;
    }
    if (!utf8ToUtf16(s, utf16_)) return false;
    putHeader(0x6, utf16_.size());
    for (std::uint16_t u : utf16_) putBE(u, 2);
    return true;
  }

  void putDouble(std::uint8_t marker, double d) {
    out_.push_back(marker);
    putBE(std::bit_cast<std::uint64_t>(d), 8);
  }

  void putScalar(const Value& v) {
    switch (v.type()) {
      case Value::Type::Null:
        out_.push_back(0x00);
        break;
      case Value::Type::Boolean:
        out_.push_back(v.boolValue() ? 0x09 : 0x08);
        break;
      case Value::Type::Int64: {
        std::int64_t i = v.int64Value();
        if (i >= 0) {
          putInt(static_cast<std::uint64_t>(i));
        } else {
          out_.push_back(0x13);  // negative numbers take all eight bytes
          putBE(static_cast<std::uint64_t>(i), 8);
        }
        break;
      }
      case Value::Type::UInt64: {
        std::uint64_t u = v.uint64Value();
        if (u <= static_cast<std::uint64_t>(INT64_MAX)) {
          putInt(u);
        } else {
          out_.push_back(0x14);  // sixteen bytes keep it from reading as negative
          putBE(0, 8);
          putBE(u, 8);
        }
        break;
      }
      case Value::Type::Double:
        putDouble(0x23, v.doubleValue());
        break;
      case Value::Type::Date:
        putDouble(0x33, v.date()->referenceSeconds());
        break;
      case Value::Type::Data: {
        const Data& d = *v.data();
        putHeader(0x4, d.size());
        out_.insert(out_.end(), d.begin(), d.end());
        break;
      }
      default:
        break;
    }
  }

  std::uint64_t next_ = 0;
  unsigned refSize_ = 1;
  // Views into the value being written, which outlives the writer.
  std::unordered_map<std::string_view, std::uint64_t> strings_;
  // Offsets fit 32 bits: run() refuses outputs of 4 GiB and more.
  std::vector<std::uint32_t> offsets_;
  std::vector<std::uint64_t> refs_;
  std::vector<std::uint16_t> utf16_;
  Data out_;
};

}  // namespace

Result<Data> encodeBinaryPropertyList(const Value& value) { return Writer().run(value); }

}  // namespace platform
