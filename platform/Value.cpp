#include "platform/Value.h"

#include <cctype>
#include <cmath>
#include <cstdio>

namespace platform {

Value::Value(platform::Array a) : v_(Box<platform::Array>(std::move(a))) {}
Value::Value(platform::Dictionary d) : v_(Box<platform::Dictionary>(std::move(d))) {}

bool Value::isNumber() const {
  switch (type()) {
    case Type::Boolean:
    case Type::Int64:
    case Type::UInt64:
    case Type::Double:
      return true;
    default:
      return false;
  }
}

bool Value::boolValue() const {
  switch (type()) {
    case Type::Boolean:
      return std::get<bool>(v_);
    case Type::Int64:
      return std::get<std::int64_t>(v_) != 0;
    case Type::UInt64:
      return std::get<std::uint64_t>(v_) != 0;
    case Type::Double:
      return std::get<double>(v_) != 0.0;
    case Type::String: {
      // As the platform's strings answer: after blanks, a sign and leading
      // zeros, YES when the text starts with Y, y, T, t or a digit 1-9.
      const std::string& s = std::get<std::string>(v_);
      std::size_t i = 0;
      while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
      if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
      while (i < s.size() && s[i] == '0') ++i;
      return i < s.size() && std::string_view("YyTt123456789").find(s[i]) != std::string_view::npos;
    }
    default:
      return false;
  }
}

std::int64_t Value::int64Value() const {
  switch (type()) {
    case Type::Boolean:
      return std::get<bool>(v_) ? 1 : 0;
    case Type::Int64:
      return std::get<std::int64_t>(v_);
    case Type::UInt64:
      return static_cast<std::int64_t>(std::get<std::uint64_t>(v_));
    case Type::Double: {
      double d = std::get<double>(v_);
      if (std::isnan(d)) return 0;
      if (d >= 9.2233720368547758e18) return INT64_MAX;
      if (d <= -9.2233720368547758e18) return INT64_MIN;
      return static_cast<std::int64_t>(d);
    }
    default:
      return 0;
  }
}

std::uint64_t Value::uint64Value() const {
  switch (type()) {
    case Type::UInt64:
      return std::get<std::uint64_t>(v_);
    case Type::Double: {
      double d = std::get<double>(v_);
      if (std::isnan(d) || d <= 0) return static_cast<std::uint64_t>(int64Value());
      if (d >= 1.8446744073709552e19) return UINT64_MAX;
      return static_cast<std::uint64_t>(d);
    }
    default:
      return static_cast<std::uint64_t>(int64Value());
  }
}

double Value::doubleValue() const {
  switch (type()) {
    case Type::Double:
      return std::get<double>(v_);
    case Type::UInt64:
      return static_cast<double>(std::get<std::uint64_t>(v_));
    default:
      return static_cast<double>(int64Value());
  }
}

const platform::Array* Value::array() const {
  auto* b = std::get_if<Box<platform::Array>>(&v_);
  return b ? &**b : nullptr;
}
platform::Array* Value::array() {
  auto* b = std::get_if<Box<platform::Array>>(&v_);
  return b ? &**b : nullptr;
}
const platform::Dictionary* Value::dictionary() const {
  auto* b = std::get_if<Box<platform::Dictionary>>(&v_);
  return b ? &**b : nullptr;
}
platform::Dictionary* Value::dictionary() {
  auto* b = std::get_if<Box<platform::Dictionary>>(&v_);
  return b ? &**b : nullptr;
}

bool operator==(const Value& a, const Value& b) {
  if (a.isNumber() && b.isNumber()) {
    if (a.type() == Value::Type::Double || b.type() == Value::Type::Double)
      return a.doubleValue() == b.doubleValue();
    if (a.type() == Value::Type::UInt64 || b.type() == Value::Type::UInt64) {
      // A negative signed value never equals an unsigned one.
      if ((a.type() == Value::Type::Int64 && a.int64Value() < 0) ||
          (b.type() == Value::Type::Int64 && b.int64Value() < 0))
        return false;
      return a.uint64Value() == b.uint64Value();
    }
    return a.int64Value() == b.int64Value();
  }
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case Value::Type::Null:
      return true;
    case Value::Type::String:
      return *a.string() == *b.string();
    case Value::Type::Data:
      return *a.data() == *b.data();
    case Value::Type::Date:
      return *a.date() == *b.date();
    case Value::Type::Array:
      return *a.array() == *b.array();
    case Value::Type::Dictionary:
      return *a.dictionary() == *b.dictionary();
    default:
      return false;
  }
}

namespace {

// Strings inside containers are quoted unless they are plain words.
bool needsQuotes(const std::string& s) {
  if (s.empty()) return true;
  for (unsigned char c : s) {
    if (!(std::isalnum(c) || c == '_' || c == '.' || c == '/' || c == '$' || c == ':' ||
          c == '-'))
      return true;
  }
  return false;
}

void appendQuoted(std::string& out, const std::string& s) {
  if (!needsQuotes(s)) {
    out += s;
    return;
  }
  out += '"';
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  out += '"';
}

void indentBy(std::string& out, int indent) { out.append(static_cast<std::size_t>(indent) * 4, ' '); }

}  // namespace

void Value::describe(std::string& out, int indent) const {
  switch (type()) {
    case Type::Null:
      out += "<null>";
      break;
    case Type::Boolean:
      out += std::get<bool>(v_) ? "1" : "0";
      break;
    case Type::Int64:
      out += std::to_string(std::get<std::int64_t>(v_));
      break;
    case Type::UInt64:
      out += std::to_string(std::get<std::uint64_t>(v_));
      break;
    case Type::Double: {
      char buf[40];
      std::snprintf(buf, sizeof buf, "%.17g", std::get<double>(v_));
      out += buf;
      break;
    }
    case Type::String:
      if (indent == 0)
        out += *string();
      else
        appendQuoted(out, *string());
      break;
    case Type::Data: {
      static const char hex[] = "0123456789abcdef";
      out += '<';
      const auto& d = *data();
      for (std::size_t i = 0; i < d.size(); ++i) {
        if (i > 0 && i % 4 == 0) out += ' ';
        out += hex[d[i] >> 4];
        out += hex[d[i] & 15];
      }
      out += '>';
      break;
    }
    case Type::Date:
      out += formatDate(*date());
      break;
    case Type::Array: {
      out += "(\n";
      const auto& a = *array();
      for (std::size_t i = 0; i < a.size(); ++i) {
        indentBy(out, indent + 1);
        a[i].describe(out, indent + 1);
        out += i + 1 < a.size() ? ",\n" : "\n";
      }
      indentBy(out, indent);
      out += ')';
      break;
    }
    case Type::Dictionary: {
      out += "{\n";
      for (const auto& [k, v] : *dictionary()) {
        indentBy(out, indent + 1);
        appendQuoted(out, k);
        out += " = ";
        v.describe(out, indent + 1);
        out += ";\n";
      }
      indentBy(out, indent);
      out += '}';
      break;
    }
  }
}

std::string Value::description() const {
  std::string out;
  describe(out, 0);
  return out;
}

Dictionary::Dictionary(std::initializer_list<Entry> entries) {
  for (const auto& e : entries) set(e.first, e.second);
}

std::ptrdiff_t Dictionary::position(std::string_view key) const {
  if (index_.empty()) {
    for (std::size_t i = 0; i < entries_.size(); ++i)
      if (entries_[i].first == key) return static_cast<std::ptrdiff_t>(i);
    return -1;
  }
  auto it = index_.find(key);
  return it == index_.end() ? -1 : static_cast<std::ptrdiff_t>(it->second);
}

const Value* Dictionary::find(std::string_view key) const {
  std::ptrdiff_t pos = position(key);
  return pos < 0 ? nullptr : &entries_[static_cast<std::size_t>(pos)].second;
}

Value* Dictionary::find(std::string_view key) {
  std::ptrdiff_t pos = position(key);
  return pos < 0 ? nullptr : &entries_[static_cast<std::size_t>(pos)].second;
}

void Dictionary::set(std::string key, Value value) {
  std::ptrdiff_t pos = position(key);
  if (pos >= 0) {
    entries_[static_cast<std::size_t>(pos)].second = std::move(value);
    return;
  }
  entries_.emplace_back(std::move(key), std::move(value));
  if (!index_.empty()) {
    index_.emplace(entries_.back().first, entries_.size() - 1);
  } else if (entries_.size() >= kIndexedFrom) {
    for (std::size_t i = 0; i < entries_.size(); ++i) index_.emplace(entries_[i].first, i);
  }
}

bool Dictionary::erase(std::string_view key) {
  std::ptrdiff_t pos = position(key);
  if (pos < 0) return false;
  // The key may view this very entry's text: drop it from the index first.
  if (!index_.empty()) index_.erase(index_.find(key));
  entries_.erase(entries_.begin() + pos);
  if (entries_.size() < kIndexedFrom) {
    index_.clear();
  } else {
    for (auto& [k, i] : index_)
      if (i > static_cast<std::size_t>(pos)) --i;
  }
  return true;
}

std::vector<std::string> Dictionary::keys() const {
  std::vector<std::string> out;
  out.reserve(entries_.size());
  for (const auto& e : entries_) out.push_back(e.first);
  return out;
}

bool operator==(const Dictionary& a, const Dictionary& b) {
  if (a.size() != b.size()) return false;
  for (const auto& [k, v] : a) {
    const Value* other = b.find(k);
    if (!other || !(*other == v)) return false;
  }
  return true;
}

}  // namespace platform
