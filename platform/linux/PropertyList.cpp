// Property lists through libplist 2.2. Its integer node is an unsigned
// 64-bit value with a hidden width (8 bytes: signed, 16 bytes: unsigned), and
// its date calls carry 32-bit seconds: dates go around them (PlistDates.h).
#include "platform/PropertyList.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <string_view>
#include <vector>

#include "platform/BinaryPropertyListWriter.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/PlistDates.h"
#include "platform/linux/PlistInputCheck.h"
#include "platform/linux/PlistNode.h"
#include "platform/linux/UniqueFd.h"
#include "platform/linux/Utf8.h"

namespace platform {

namespace {

constexpr const char* kDomain = "PropertyListErrorDomain";

enum Code : std::int64_t { kMalformed = 1, kTooDeep = 2, kUnsupported = 3, kTooLarge = 4 };

Error plistError(Code code, std::string description) {
  return Error{kDomain, code, std::move(description)};
}

// Text libplist's C interface can carry: no NUL (it takes C strings) and
// valid UTF-8 (its binary writer misreads anything else).
std::optional<Error> checkText(const std::string& s, const char* what) {
  if (s.find('\0') != std::string::npos)
    return plistError(kUnsupported, std::string(what) + " holds a NUL character");
  if (!isValidUtf8(s)) return plistError(kUnsupported, std::string(what) + " is not UTF-8");
  return std::nullopt;
}

// libplist 2.2 marks an integer unsigned only when it parsed one from text
// above INT64_MAX, so such a node is made the same way.
PlistNode unsignedAboveSignedRange(std::uint64_t u) {
  std::string xml = "<plist><integer>" + std::to_string(u) + "</integer></plist>";
  plist_t node = nullptr;
  plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &node);
  return PlistNode(node);
}

// An integer node that compares unequal to the plain (signed-width) node of
// the same bits is the 16-byte unsigned kind.
bool isUnsignedWidth(plist_t node, std::uint64_t bits) {
  PlistNode plain(plist_new_uint(bits));
  return !plist_compare_node_value(node, plain.get());
}

Result<PlistNode> toNode(const Value& v, int depth, std::vector<Date>& dates);

Result<PlistNode> containerToNode(const Value& v, int depth, std::vector<Date>& dates) {
  if (depth >= kMaxPropertyListDepth)
    return plistError(kTooDeep, "property list is nested too deeply");
  if (const Array* a = v.array()) {
    PlistNode node(plist_new_array());
    for (const Value& item : *a) {
      auto child = toNode(item, depth + 1, dates);
      if (!child) return child.error();
      plist_array_append_item(node.get(), child->release());
    }
    return node;
  }
  PlistNode node(plist_new_dict());
  for (const auto& [key, item] : *v.dictionary()) {
    if (auto bad = checkText(key, "dictionary key")) return *bad;
    auto child = toNode(item, depth + 1, dates);
    if (!child) return child.error();
    plist_dict_set_item(node.get(), key.c_str(), child->release());
  }
  return node;
}

Result<PlistNode> toNode(const Value& v, int depth, std::vector<Date>& dates) {
  switch (v.type()) {
    case Value::Type::Null:
      return plistError(kUnsupported, "property lists have no null value");
    case Value::Type::Boolean:
      return PlistNode(plist_new_bool(v.boolValue() ? 1 : 0));
    case Value::Type::Int64:
      return PlistNode(plist_new_uint(static_cast<std::uint64_t>(v.int64Value())));
    case Value::Type::UInt64: {
      std::uint64_t u = v.uint64Value();
      if (u <= static_cast<std::uint64_t>(INT64_MAX)) return PlistNode(plist_new_uint(u));
      PlistNode node = unsignedAboveSignedRange(u);
      if (!node) return plistError(kUnsupported, "unsigned integer could not be represented");
      return node;
    }
    case Value::Type::Double:
      return PlistNode(plist_new_real(v.doubleValue()));
    case Value::Type::String:
      if (auto bad = checkText(*v.string(), "string")) return *bad;
      return PlistNode(plist_new_string(v.string()->c_str()));
    case Value::Type::Data: {
      const Data& d = *v.data();
      return PlistNode(
          plist_new_data(d.empty() ? "" : reinterpret_cast<const char*>(d.data()), d.size()));
    }
    case Value::Type::Date:
      if (!formatXmlDate(*v.date()))
        return plistError(kUnsupported, "date " + formatDate(*v.date()) +
                                            " is outside years 1 to 9999, which XML can hold");
      dates.push_back(*v.date());
      return PlistNode(xmlDateIndexNode(dates.size() - 1));
    case Value::Type::Array:
    case Value::Type::Dictionary:
      return containerToNode(v, depth, dates);
  }
  return plistError(kUnsupported, "unknown value type");
}

// dates: those taken out of an XML property list; nothing for binary input.
Result<Value> toValue(plist_t node, int depth, const std::vector<Date>* dates);

Result<Value> arrayToValue(plist_t node, int depth, const std::vector<Date>* dates) {
  Array items;
  items.reserve(plist_array_get_size(node));
  PlistMalloced<void> iter;
  plist_array_new_iter(node, iter.out());
  for (;;) {
    plist_t child = nullptr;
    plist_array_next_item(node, iter.get(), &child);
    if (!child) break;
    auto v = toValue(child, depth + 1, dates);
    if (!v) return v.error();
    items.push_back(std::move(*v));
  }
  return Value(std::move(items));
}

Result<Value> dictionaryToValue(plist_t node, int depth, const std::vector<Date>* dates) {
  Dictionary entries;
  PlistMalloced<void> iter;
  plist_dict_new_iter(node, iter.out());
  for (;;) {
    PlistMalloced<char> key;
    plist_t child = nullptr;
    plist_dict_next_item(node, iter.get(), key.out(), &child);
    if (!child || !key.get()) break;
    auto v = toValue(child, depth + 1, dates);
    if (!v) return v.error();
    entries.set(key.get(), std::move(*v));
  }
  return Value(std::move(entries));
}

Result<Value> dateToValue(plist_t node, const std::vector<Date>* dates) {
  if (dates) {
    auto index = xmlDateIndex(node);
    if (!index || *index >= dates->size())
      return plistError(kMalformed, "XML property list date could not be read");
    return Value((*dates)[*index]);
  }
  auto seconds = binaryDateSeconds(node);
  if (!seconds) return plistError(kMalformed, "binary property list date could not be read");
  auto date = Date::fromReferenceSeconds(*seconds);
  if (!date) {
    char text[64];
    std::snprintf(text, sizeof text, "%g", *seconds);
    return plistError(kUnsupported,
                      std::string("binary property list date ") + text +
                          " seconds from 2001 is beyond the dates this system can hold");
  }
  return Value(*date);
}

Result<Value> toValue(plist_t node, int depth, const std::vector<Date>* dates) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      std::uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value(b != 0);
    }
    case PLIST_UINT: {
      std::uint64_t bits = 0;
      plist_get_uint_val(node, &bits);
      if (bits > static_cast<std::uint64_t>(INT64_MAX) && isUnsignedWidth(node, bits))
        return Value(bits);
      return Value(static_cast<std::int64_t>(bits));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value(d);
    }
    case PLIST_STRING: {
      std::uint64_t length = 0;
      const char* s = plist_get_string_ptr(node, &length);
      return Value(std::string(s ? s : "", s ? length : 0));
    }
    case PLIST_DATA: {
      std::uint64_t length = 0;
      const char* p = plist_get_data_ptr(node, &length);
      const auto* bytes = reinterpret_cast<const std::uint8_t*>(p);
      return Value(p ? Data(bytes, bytes + length) : Data{});
    }
    case PLIST_DATE:
      return dateToValue(node, dates);
    case PLIST_ARRAY:
    case PLIST_DICT:
      if (depth >= kMaxPropertyListDepth)
        return plistError(kTooDeep, "property list is nested too deeply");
      return plist_get_node_type(node) == PLIST_ARRAY ? arrayToValue(node, depth, dates)
                                                      : dictionaryToValue(node, depth, dates);
    default:
      return plistError(kUnsupported, "property list holds a value of an unsupported type");
  }
}

}  // namespace

Result<Value> parsePropertyList(std::span<const std::uint8_t> bytes) {
  if (bytes.empty()) return plistError(kMalformed, "property list is empty");
  if (bytes.size() > kMaxPropertyListBytes)
    return plistError(kTooLarge, "property list is larger than the accepted size");
  bool binary = looksLikeBinaryPropertyList(bytes);
  if (auto why = binary ? checkBinaryPropertyList(bytes) : checkXmlPropertyList(bytes))
    return plistError(why->find("deeply") != std::string::npos ? kTooDeep : kMalformed, *why);
  plist_t root = nullptr;
  const char* text = reinterpret_cast<const char*>(bytes.data());
  auto length = static_cast<std::uint32_t>(bytes.size());
  XmlDates xml;
  if (binary) {
    plist_from_bin(text, length, &root);
  } else {
    std::string why;
    auto taken = takeXmlDates(std::string_view(text, bytes.size()), &why);
    if (!taken) return plistError(kMalformed, why);
    xml = std::move(*taken);
    plist_from_xml(xml.text.data(), static_cast<std::uint32_t>(xml.text.size()), &root);
  }
  PlistNode owned(root);
  if (!owned) return plistError(kMalformed, "data is not a property list");
  return toValue(owned.get(), 0, binary ? nullptr : &xml.dates);
}

Result<Value> readPropertyListFile(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return posixError(errno, path);
  Data bytes;
  std::uint8_t chunk[65536];
  for (;;) {
    ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
    if (n < 0) {
      if (errno == EINTR) continue;
      return posixError(errno, path);
    }
    if (n == 0) break;
    if (bytes.size() + static_cast<std::size_t>(n) > kMaxPropertyListBytes)
      return plistError(kTooLarge, "property list is larger than the accepted size (" + path + ")");
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  auto parsed = parsePropertyList(bytes);
  if (!parsed) {
    Error e = parsed.error();
    e.description += " (" + path + ")";
    return e;
  }
  return parsed;
}

namespace {

// The refusals of the XML writer but for dates (binary holds them all),
// without building a libplist tree.
Status checkWritable(const Value& v, int depth) {
  switch (v.type()) {
    case Value::Type::Null:
      return plistError(kUnsupported, "property lists have no null value");
    case Value::Type::String:
      if (auto bad = checkText(*v.string(), "string")) return *bad;
      return {};
    case Value::Type::Array:
    case Value::Type::Dictionary:
      if (depth >= kMaxPropertyListDepth)
        return plistError(kTooDeep, "property list is nested too deeply");
      if (const Array* a = v.array()) {
        for (const Value& item : *a)
          if (Status s = checkWritable(item, depth + 1); !s) return s;
        return {};
      }
      for (const auto& [key, item] : *v.dictionary()) {
        if (auto bad = checkText(key, "dictionary key")) return *bad;
        if (Status s = checkWritable(item, depth + 1); !s) return s;
      }
      return {};
    default:
      return {};
  }
}

}  // namespace

Result<Data> writeBinaryPropertyList(const Value& value) {
  if (Status s = checkWritable(value, 0); !s) return s.error();
  // Our own encoder: libplist's writer grows worse than linearly, and a full
  // device manifest took it longer than hashing the files it describes.
  return encodeBinaryPropertyList(value);
}

Result<std::string> writeXmlPropertyList(const Value& value) {
  std::vector<Date> dates;
  auto node = toNode(value, 0, dates);
  if (!node) return node.error();
  PlistMalloced<char> out;
  std::uint32_t length = 0;
  plist_to_xml(node->get(), out.out(), &length);
  if (!out.get()) return plistError(kUnsupported, "property list could not be serialised");
  auto text = putXmlDates(std::string_view(out.get(), length), dates);
  if (!text) return plistError(kUnsupported, "property list dates could not be serialised");
  return *text;
}

}  // namespace platform
