#include "platform/BinaryPropertyListStream.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "platform/BinaryPropertyListWriter.h"

namespace platform {

namespace {

constexpr const char* kDomain = "PropertyListErrorDomain";
constexpr int kMaxDepth = 512;
// References are four bytes wide from the start, as the number of objects
// is not known until the end.
constexpr unsigned kRefSize = 4;
constexpr std::size_t kFlushAt = 256 * 1024;
constexpr std::size_t kInternMaxBytes = 64;
constexpr std::size_t kInternMaxCount = 8192;

Error writeError(const std::string& what) { return Error{kDomain, 3, what}; }

unsigned bytesFor(std::uint64_t n) {
  if (n <= 0xFF) return 1;
  if (n <= 0xFFFF) return 2;
  if (n <= 0xFFFFFFFFull) return 4;
  return 8;
}

std::uint64_t hashOf(std::string_view key) { return std::hash<std::string_view>()(key); }

}  // namespace

BinaryPropertyListStream::BinaryPropertyListStream(Sink sink, ReadBack readBack)
    : sink_(std::move(sink)), readBack_(std::move(readBack)) {
  buffer_.reserve(kFlushAt + 4096);
  buffer_.assign({'b', 'p', 'l', 'i', 's', 't', '0', '0'});
  index_.assign(1024, 0);
}

Status BinaryPropertyListStream::add(std::string_view key, const Value& value) {
  if (!failed_) return failed_;
  std::uint32_t valueRef = 0;
  if (Status st = visit(value, 1, &valueRef); !st) return failed_ = st;
  const std::uint64_t hash = hashOf(key);
  scratch_.clear();
  if (!putString(key)) return failed_ = writeError("string is not UTF-8");
  const std::size_t mask = index_.size() - 1;
  std::size_t slot = hash & mask;
  for (; index_[slot] != 0; slot = (slot + 1) & mask) {
    const std::uint32_t entry = index_[slot] - 1;
    if (keyHashes_[entry] != hash) continue;
    bool same = false;
    if (Status st = holdsScratch(keyRefs_[entry], &same); !st) return failed_ = st;
    if (same) {
      valueRefs_[entry] = valueRef;  // replaced, in its place
      return {};
    }
  }
  std::uint32_t keyRef = 0;
  // Keys are paths, seldom repeated: never interned.
  if (Status st = emit(false, &keyRef); !st) return failed_ = st;
  index_[slot] = static_cast<std::uint32_t>(keyRefs_.size() + 1);
  keyRefs_.push_back(keyRef);
  valueRefs_.push_back(valueRef);
  keyHashes_.push_back(hash);
  if (keyRefs_.size() * 2 > index_.size()) growIndex();
  return {};
}

void BinaryPropertyListStream::growIndex() {
  std::vector<std::uint32_t> bigger(index_.size() * 2, 0);
  const std::size_t mask = bigger.size() - 1;
  for (std::size_t entry = 0; entry < keyHashes_.size(); ++entry) {
    std::size_t slot = keyHashes_[entry] & mask;
    while (bigger[slot] != 0) slot = (slot + 1) & mask;
    bigger[slot] = static_cast<std::uint32_t>(entry + 1);
  }
  index_ = std::move(bigger);
}

Status BinaryPropertyListStream::finish() {
  if (!failed_) return failed_;
  const std::uint64_t top = offsets_.size();
  const std::uint64_t topOffset = written_ + buffer_.size();
  if (topOffset > UINT32_MAX) return failed_ = writeError("property list too large");
  offsets_.push_back(static_cast<std::uint32_t>(topOffset));
  scratch_.clear();
  putHeader(0xD, keyRefs_.size());
  for (const auto* refs : {&keyRefs_, &valueRefs_}) {
    for (std::uint32_t r : *refs) {
      putBE(r, kRefSize);
      if (scratch_.size() >= kFlushAt)
        if (Status st = spill(); !st) return failed_ = st;
    }
  }
  if (Status st = spill(); !st) return failed_ = st;
  const std::uint64_t tableOffset = written_ + buffer_.size();
  if (tableOffset > UINT32_MAX) return failed_ = writeError("property list too large");
  const unsigned offsetSize = bytesFor(tableOffset);
  for (std::uint32_t offset : offsets_) {
    putBE(offset, offsetSize);
    if (scratch_.size() >= kFlushAt)
      if (Status st = spill(); !st) return failed_ = st;
  }
  for (int i = 0; i < 6; ++i) scratch_.push_back(0);
  scratch_.push_back(static_cast<std::uint8_t>(offsetSize));
  scratch_.push_back(static_cast<std::uint8_t>(kRefSize));
  putBE(offsets_.size(), 8);
  putBE(top, 8);
  putBE(tableOffset, 8);
  if (Status st = spill(); !st) return failed_ = st;
  return failed_ = flush();
}

Status BinaryPropertyListStream::visit(const Value& v, int depth, std::uint32_t* ref) {
  if (depth > kMaxDepth) return writeError("value nested too deeply");
  switch (v.type()) {
    case Value::Type::Array: {
      const Array& a = *v.array();
      const std::size_t base = refs_.size();
      refs_.resize(base + a.size());
      for (std::size_t i = 0; i < a.size(); ++i) {
        // refs_ may grow below: no pointer into it is held across the call.
        std::uint32_t r = 0;
        if (Status st = visit(a[i], depth + 1, &r); !st) return st;
        refs_[base + i] = r;
      }
      scratch_.clear();
      putHeader(0xA, a.size());
      for (std::size_t i = base; i < refs_.size(); ++i) putBE(refs_[i], kRefSize);
      refs_.resize(base);
      return emit(a.empty(), ref);
    }
    case Value::Type::Dictionary: {
      const Dictionary& d = *v.dictionary();
      const std::size_t base = refs_.size();
      refs_.resize(base + 2 * d.size());
      std::size_t i = 0;
      for (const auto& [key, value] : d) {
        scratch_.clear();
        if (!putString(key)) return writeError("string is not UTF-8");
        std::uint32_t k = 0, r = 0;
        if (Status st = emit(true, &k); !st) return st;
        if (Status st = visit(value, depth + 1, &r); !st) return st;
        refs_[base + i] = k;
        refs_[base + d.size() + i] = r;
        ++i;
      }
      scratch_.clear();
      putHeader(0xD, d.size());
      for (std::size_t j = base; j < refs_.size(); ++j) putBE(refs_[j], kRefSize);
      refs_.resize(base);
      // An empty dictionary (no extended attributes) is one object for all.
      return emit(d.empty(), ref);
    }
    case Value::Type::String:
      scratch_.clear();
      if (!putString(*v.string())) return writeError("string is not UTF-8");
      return emit(true, ref);
    default:
      scratch_.clear();
      putScalar(v);
      // Digests and dates are nearly all different: not worth a lookup.
      return emit(v.type() != Value::Type::Date && (!v.data() || v.data()->empty()), ref);
  }
}

Status BinaryPropertyListStream::emit(bool intern, std::uint32_t* ref) {
  std::string_view bytes(reinterpret_cast<const char*>(scratch_.data()), scratch_.size());
  intern = intern && bytes.size() <= kInternMaxBytes;
  if (intern) {
    auto it = interned_.find(bytes);
    if (it != interned_.end()) {
      *ref = it->second;
      return {};
    }
  }
  const std::uint64_t offset = written_ + buffer_.size();
  if (offset > UINT32_MAX) return writeError("property list too large");
  if (offsets_.size() >= UINT32_MAX) return writeError("property list has too many objects");
  *ref = static_cast<std::uint32_t>(offsets_.size());
  offsets_.push_back(static_cast<std::uint32_t>(offset));
  buffer_.insert(buffer_.end(), scratch_.begin(), scratch_.end());
  if (intern && interned_.size() < kInternMaxCount) interned_.emplace(bytes, *ref);
  if (buffer_.size() >= kFlushAt) return flush();
  return {};
}

Status BinaryPropertyListStream::spill() {
  buffer_.insert(buffer_.end(), scratch_.begin(), scratch_.end());
  scratch_.clear();
  return buffer_.size() >= kFlushAt ? flush() : Status();
}

Status BinaryPropertyListStream::flush() {
  if (buffer_.empty()) return {};
  if (Status st = sink_(buffer_); !st) return st;
  written_ += buffer_.size();
  buffer_.clear();
  return {};
}

Status BinaryPropertyListStream::holdsScratch(std::uint32_t ref, bool* same) {
  const std::uint64_t offset = offsets_[ref];
  if (offset >= written_) {
    const std::size_t at = offset - written_;
    *same = buffer_.size() - at >= scratch_.size() &&
            std::equal(scratch_.begin(), scratch_.end(), buffer_.begin() + at);
    return {};
  }
  // Written out already: read it back. An object may straddle the buffer.
  std::vector<std::uint8_t> stored(scratch_.size());
  const std::size_t onDisk = std::min<std::uint64_t>(stored.size(), written_ - offset);
  if (Status st = readBack_(offset, std::span(stored).first(onDisk)); !st) return st;
  if (onDisk < stored.size()) {
    const std::size_t rest = stored.size() - onDisk;
    if (buffer_.size() < rest) {
      *same = false;
      return {};
    }
    std::copy_n(buffer_.begin(), rest, stored.begin() + onDisk);
  }
  *same = stored == scratch_;
  return {};
}

void BinaryPropertyListStream::putBE(std::uint64_t v, unsigned bytes) {
  for (unsigned i = bytes; i-- > 0;) scratch_.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
}

void BinaryPropertyListStream::putInt(std::uint64_t v) {
  unsigned n = bytesFor(v);
  scratch_.push_back(static_cast<std::uint8_t>(0x10 | std::countr_zero(n)));
  putBE(v, n);
}

void BinaryPropertyListStream::putHeader(unsigned type, std::uint64_t count) {
  if (count < 15) {
    scratch_.push_back(static_cast<std::uint8_t>(type << 4 | count));
  } else {
    scratch_.push_back(static_cast<std::uint8_t>(type << 4 | 0xF));
    putInt(count);
  }
}

bool BinaryPropertyListStream::putString(std::string_view s) {
  bool ascii = std::all_of(s.begin(), s.end(), [](char c) { return (c & 0x80) == 0; });
  if (ascii) {
    putHeader(0x5, s.size());
    scratch_.insert(scratch_.end(), s.begin(), s.end());
    return true;
  }
  if (!utf8ToUtf16(s, utf16_)) return false;
  putHeader(0x6, utf16_.size());
  for (std::uint16_t u : utf16_) putBE(u, 2);
  return true;
}

void BinaryPropertyListStream::putScalar(const Value& v) {
  auto putDouble = [&](std::uint8_t marker, double d) {
    scratch_.push_back(marker);
    putBE(std::bit_cast<std::uint64_t>(d), 8);
  };
  switch (v.type()) {
    case Value::Type::Null:
      scratch_.push_back(0x00);
      break;
    case Value::Type::Boolean:
      scratch_.push_back(v.boolValue() ? 0x09 : 0x08);
      break;
    case Value::Type::Int64: {
      std::int64_t i = v.int64Value();
      if (i >= 0) {
        putInt(static_cast<std::uint64_t>(i));
      } else {
        scratch_.push_back(0x13);
        putBE(static_cast<std::uint64_t>(i), 8);
      }
      break;
    }
    case Value::Type::UInt64: {
      std::uint64_t u = v.uint64Value();
      if (u <= static_cast<std::uint64_t>(INT64_MAX)) {
        putInt(u);
      } else {
        scratch_.push_back(0x14);
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
      scratch_.insert(scratch_.end(), d.begin(), d.end());
      break;
    }
    default:
      break;
  }
}

}  // namespace platform
