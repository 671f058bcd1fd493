#include "platform/linux/PlistInputCheck.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

namespace platform {

namespace {

constexpr std::size_t kHeaderBytes = 8;
constexpr std::size_t kTrailerBytes = 32;

std::uint64_t readBigEndian(const std::uint8_t* p, std::size_t n) {
  std::uint64_t v = 0;
  for (std::size_t i = 0; i < n; ++i) v = (v << 8) | p[i];
  return v;
}

// The parts of a binary property list the walk needs, all bounds-checked
// against the buffer before use.
class BinaryLayout {
 public:
  explicit BinaryLayout(std::span<const std::uint8_t> bytes) : b_(bytes) {}

  std::optional<std::string> readTrailer() {
    if (b_.size() < kHeaderBytes + kTrailerBytes) return "binary property list is truncated";
    const std::uint8_t* t = b_.data() + b_.size() - kTrailerBytes;
    offsetSize_ = t[6];
    refSize_ = t[7];
    count_ = readBigEndian(t + 8, 8);
    top_ = readBigEndian(t + 16, 8);
    std::uint64_t table = readBigEndian(t + 24, 8);
    limit_ = b_.size() - kTrailerBytes;
    if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8)
      return "binary property list has invalid integer sizes";
    if (count_ == 0 || top_ >= count_) return "binary property list has no top object";
    if (table < kHeaderBytes || table > limit_ || count_ > (limit_ - table) / offsetSize_)
      return "binary property list offset table is out of bounds";
    table_ = static_cast<std::size_t>(table);
    return std::nullopt;
  }

  std::uint64_t count() const { return count_; }
  std::uint64_t top() const { return top_; }

  // Where an object starts, or 0 when its offset points outside the objects.
  std::size_t offsetOf(std::uint64_t index) const {
    std::uint64_t off = readBigEndian(b_.data() + table_ + index * offsetSize_, offsetSize_);
    return off >= kHeaderBytes && off < limit_ ? static_cast<std::size_t>(off) : 0;
  }

  // Checks that one object's contents lie inside the buffer and, for
  // containers, collects its references (dictionaries: keys then values).
  // keyUsable tells whether the object could serve as a dictionary key: a
  // string without NUL (libplist aborts on a key that holds one).
  std::optional<std::string> shape(std::uint64_t index, std::vector<std::uint64_t>& refs,
                                   bool& container, bool& keyUsable) const {
    refs.clear();
    container = keyUsable = false;
    std::size_t pos = offsetOf(index);
    if (pos == 0) return "binary property list object offset is out of bounds";
    std::uint8_t marker = b_[pos++];
    unsigned type = marker >> 4, info = marker & 0x0f;
    std::uint64_t length = info;
    bool counted =
        type == 0x4 || type == 0x5 || type == 0x6 || type == 0xa || type == 0xc || type == 0xd;
    if (counted && info == 0x0f) {
      if (pos >= limit_) return "binary property list object is truncated";
      std::uint8_t intMarker = b_[pos++];
      if ((intMarker >> 4) != 0x1 || (intMarker & 0x0f) > 3)
        return "binary property list object has an invalid length";
      std::size_t n = std::size_t{1} << (intMarker & 0x0f);
      if (n > limit_ - pos) return "binary property list object is truncated";
      length = readBigEndian(b_.data() + pos, n);
      pos += n;
    }
    std::uint64_t room = limit_ - pos;
    switch (type) {
      case 0x0:
        return std::nullopt;
      case 0x1:
      case 0x2:
        if (info > 4 || (std::uint64_t{1} << info) > room)
          return "binary property list number is malformed";
        return std::nullopt;
      case 0x3:
        if (info != 3 || room < 8) return "binary property list date is malformed";
        return std::nullopt;
      case 0x4:
      case 0x5:
        if (length > room) return "binary property list object is truncated";
        keyUsable = type == 0x5 && std::memchr(b_.data() + pos, 0, length) == nullptr;
        return std::nullopt;
      case 0x6:
        if (length > room / 2) return "binary property list object is truncated";
        keyUsable = true;
        for (std::uint64_t i = 0; i < length; ++i)
          if (b_[pos + 2 * i] == 0 && b_[pos + 2 * i + 1] == 0) keyUsable = false;
        return std::nullopt;
      case 0x8:
        if (info + 1u > room) return "binary property list object is truncated";
        return std::nullopt;
      case 0xa:
      case 0xc:
      case 0xd: {
        std::uint64_t n = type == 0xd ? length * 2 : length;
        if (length > room || n > room / refSize_) return "binary property list object is truncated";
        container = true;
        refs.reserve(static_cast<std::size_t>(n));
        for (std::uint64_t i = 0; i < n; ++i) {
          std::uint64_t ref = readBigEndian(b_.data() + pos + i * refSize_, refSize_);
          if (ref >= count_) return "binary property list reference is out of bounds";
          refs.push_back(ref);
        }
        return std::nullopt;
      }
      default:
        return "binary property list holds an unknown object type";
    }
  }

 private:
  std::span<const std::uint8_t> b_;
  unsigned offsetSize_ = 0, refSize_ = 0;
  std::uint64_t count_ = 0, top_ = 0;
  std::size_t table_ = 0, limit_ = 0;
};

struct Frame {
  std::uint64_t index;
  std::vector<std::uint64_t> refs;
  std::size_t next = 0;
  bool dictionary = false;
};

}  // namespace

bool looksLikeBinaryPropertyList(std::span<const std::uint8_t> bytes) {
  return bytes.size() >= kHeaderBytes && std::memcmp(bytes.data(), "bplist00", kHeaderBytes) == 0;
}

std::optional<std::string> checkBinaryPropertyList(std::span<const std::uint8_t> bytes) {
  BinaryLayout layout(bytes);
  if (auto why = layout.readTrailer()) return why;

  // Depth-first walk over the object graph, each object visited once: the
  // memo keeps shared subtrees from costing more than once, and the node
  // count bounds what libplist will build when it expands them.
  enum : std::uint8_t { kUnseen, kOpen, kDone };
  std::vector<std::uint8_t> state(static_cast<std::size_t>(layout.count()), kUnseen);
  std::vector<std::uint16_t> depth(state.size(), 0);
  std::vector<std::uint64_t> nodes(state.size(), 0);
  const std::uint64_t maxNodes = std::max<std::uint64_t>(1u << 20, 2 * bytes.size());
  std::vector<Frame> stack;
  std::vector<std::uint64_t> refs;
  bool container = false, keyUsable = false;

  auto enter = [&](std::uint64_t index) -> std::optional<std::string> {
    if (auto why = layout.shape(index, refs, container, keyUsable)) return why;
    if (!container) {
      state[index] = kDone;
      nodes[index] = 1;
      return std::nullopt;
    }
    if (stack.size() >= static_cast<std::size_t>(kMaxPropertyListDepth))
      return "property list is nested too deeply";
    std::uint8_t marker = bytes[layout.offsetOf(index)];
    state[index] = kOpen;
    stack.push_back(Frame{index, refs, 0, (marker >> 4) == 0xd});
    return std::nullopt;
  };

  if (auto why = enter(layout.top())) return why;
  while (!stack.empty()) {
    Frame& f = stack.back();
    if (f.next == f.refs.size()) {
      std::uint64_t total = 1;
      std::uint16_t deepest = 0;
      for (std::uint64_t r : f.refs) {
        total = std::min(total + nodes[r], maxNodes + 1);
        deepest = std::max(deepest, depth[r]);
      }
      if (deepest + 1 > kMaxPropertyListDepth) return "property list is nested too deeply";
      if (total > maxNodes) return "property list expands beyond its size limit";
      state[f.index] = kDone;
      depth[f.index] = static_cast<std::uint16_t>(deepest + 1);
      nodes[f.index] = total;
      stack.pop_back();
      continue;
    }
    bool isKey = f.dictionary && f.next < f.refs.size() / 2;
    std::uint64_t child = f.refs[f.next++];
    if (state[child] == kOpen) return "property list refers to itself";
    if (state[child] == kDone && !isKey) continue;
    if (auto why = enter(child)) return why;
    if (isKey && !keyUsable) return "property list dictionary key is not a usable string";
  }
  return std::nullopt;
}

namespace {

// Index just past the end marker, or npos when it is missing.
std::size_t skipPast(std::string_view text, std::size_t from, std::string_view end) {
  std::size_t at = text.find(end, from);
  return at == std::string_view::npos ? at : at + end.size();
}

// End of a tag starting at '<', honouring quoted attribute values.
std::size_t tagEnd(std::string_view text, std::size_t from) {
  char quote = 0;
  for (std::size_t i = from; i < text.size(); ++i) {
    char c = text[i];
    if (quote) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '>') {
      return i;
    }
  }
  return std::string_view::npos;
}

}  // namespace

std::optional<std::string> checkXmlPropertyList(std::span<const std::uint8_t> bytes) {
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  // <plist> and a leaf element sit around the deepest accepted container.
  const int maxElements = kMaxPropertyListDepth + 2;
  int depth = 0;
  std::size_t i = 0;
  while ((i = text.find('<', i)) != std::string_view::npos) {
    std::string_view rest = text.substr(i);
    std::size_t next;
    if (rest.starts_with("<!--")) {
      next = skipPast(text, i + 4, "-->");
    } else if (rest.starts_with("<![CDATA[")) {
      next = skipPast(text, i + 9, "]]>");
    } else if (rest.starts_with("<?")) {
      next = skipPast(text, i + 2, "?>");
    } else if (rest.starts_with("<!")) {
      std::size_t close = tagEnd(text, i);
      std::size_t bracket = text.find('[', i);
      if (bracket != std::string_view::npos && bracket < close)
        next = skipPast(text, bracket, "]>");
      else
        next = close == std::string_view::npos ? close : close + 1;
    } else {
      std::size_t close = tagEnd(text, i);
      if (close == std::string_view::npos) return "XML property list has an unterminated tag";
      if (rest.starts_with("</")) {
        if (depth > 0) --depth;
      } else if (text[close - 1] != '/' && ++depth > maxElements) {
        return "property list is nested too deeply";
      }
      next = close + 1;
    }
    if (next == std::string_view::npos) return "XML property list has an unterminated section";
    i = next;
  }
  return std::nullopt;
}

}  // namespace platform
