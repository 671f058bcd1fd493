#include "tools/ctl/Json.h"

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "ovix/Utf8.h"
#include "ovix/WireFormat.h"

namespace vexdctl {

namespace {

class Parser {
 public:
  explicit Parser(std::string_view text) : s_(text) {}

  bool document(ovix::Object& out) {
    if (!value(out, 1)) return false;
    skipSpace();
    if (pos_ != s_.size()) return fail("unexpected text after the value");
    return true;
  }

  std::string error;

 private:
  bool value(ovix::Object& out, int depth) {
    skipSpace();
    if (pos_ >= s_.size()) return fail("unexpected end of input");
    const char c = s_[pos_];
    if (c == '{' || c == '[') {
      if (depth > ovix::wire::kMaxDepth) return fail("nested too deep");
      return c == '{' ? object(out, depth) : array(out, depth);
    }
    if (c == '"') {
      std::string str;
      if (!string(str)) return false;
      out = ovix::Object::makeString(str);
      return true;
    }
    if (literal("true")) return out = ovix::Object::makeBool(true), true;
    if (literal("false")) return out = ovix::Object::makeBool(false), true;
    if (literal("null")) return out = ovix::Object::makeNull(), true;
    if (c == '-' || (c >= '0' && c <= '9')) return number(out);
    return fail(std::string("unexpected character '") + c + "'");
  }

  bool object(ovix::Object& out, int depth) {
    ++pos_;
    out = ovix::Object::makeDictionary();
    skipSpace();
    if (consume('}')) return true;
    for (;;) {
      skipSpace();
      if (pos_ >= s_.size() || s_[pos_] != '"') return fail("expected a key in quotes");
      std::string key;
      if (!string(key)) return false;
      if (out.get(key)) return fail("duplicate key \"" + key + "\"");
      skipSpace();
      if (!consume(':')) return fail("expected ':' after a key");
      ovix::Object v;
      if (!value(v, depth + 1)) return false;
      out.set(std::move(key), std::move(v));
      skipSpace();
      if (consume('}')) return true;
      if (!consume(',')) return fail("expected ',' or '}'");
    }
  }

  bool array(ovix::Object& out, int depth) {
    ++pos_;
    out = ovix::Object::makeArray();
    skipSpace();
    if (consume(']')) return true;
    for (;;) {
      ovix::Object v;
      if (!value(v, depth + 1)) return false;
      out.append(std::move(v));
      skipSpace();
      if (consume(']')) return true;
      if (!consume(',')) return fail("expected ',' or ']'");
    }
  }

  bool string(std::string& out) {
    ++pos_;  // opening quote
    for (;;) {
      if (pos_ >= s_.size()) return fail("unterminated string");
      const unsigned char c = static_cast<unsigned char>(s_[pos_++]);
      if (c == '"') break;
      if (c < 0x20) return fail("control character in a string");
      if (c != '\\') {
        out += static_cast<char>(c);
        continue;
      }
      if (pos_ >= s_.size()) return fail("unterminated string");
      const char e = s_[pos_++];
      switch (e) {
        case '"':
        case '\\':
        case '/':
          out += e;
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          std::uint32_t cp = 0;
          if (!hex4(cp)) return false;
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            std::uint32_t low = 0;
            if (!(consume('\\') && consume('u') && hex4(low)) || low < 0xDC00 || low > 0xDFFF) {
              return fail("unpaired surrogate in a string");
            }
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            return fail("unpaired surrogate in a string");
          }
          appendUtf8(out, cp);
          break;
        }
        default:
          return fail(std::string("unknown escape \\") + e);
      }
    }
    // The wire carries UTF-8 without NUL only; say so here, not at send.
    if (!ovix::isValidUtf8(out)) return fail("string is not valid UTF-8 or holds NUL");
    return true;
  }

  bool hex4(std::uint32_t& cp) {
    if (s_.size() - pos_ < 4) return fail("short \\u escape");
    cp = 0;
    for (int i = 0; i < 4; ++i) {
      const char h = s_[pos_++];
      cp <<= 4;
      if (h >= '0' && h <= '9') {
        cp |= static_cast<std::uint32_t>(h - '0');
      } else if (h >= 'a' && h <= 'f') {
        cp |= static_cast<std::uint32_t>(h - 'a' + 10);
      } else if (h >= 'A' && h <= 'F') {
        cp |= static_cast<std::uint32_t>(h - 'A' + 10);
      } else {
        return fail("bad \\u escape");
      }
    }
    return true;
  }

  static void appendUtf8(std::string& out, std::uint32_t cp) {
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }

  bool number(ovix::Object& out) {
    const std::size_t start = pos_;
    if (s_[pos_] == '-') ++pos_;
    if (pos_ >= s_.size() || !isDigit(s_[pos_])) return fail("malformed number");
    if (s_[pos_] == '0' && pos_ + 1 < s_.size() && isDigit(s_[pos_ + 1])) {
      return fail("leading zero in a number");
    }
    while (pos_ < s_.size() && isDigit(s_[pos_])) ++pos_;
    bool integral = true;
    if (pos_ < s_.size() && s_[pos_] == '.') {
      integral = false;
      ++pos_;
      if (pos_ >= s_.size() || !isDigit(s_[pos_])) return fail("malformed number");
      while (pos_ < s_.size() && isDigit(s_[pos_])) ++pos_;
    }
    if (pos_ < s_.size() && (s_[pos_] == 'e' || s_[pos_] == 'E')) {
      integral = false;
      ++pos_;
      if (pos_ < s_.size() && (s_[pos_] == '+' || s_[pos_] == '-')) ++pos_;
      if (pos_ >= s_.size() || !isDigit(s_[pos_])) return fail("malformed number");
      while (pos_ < s_.size() && isDigit(s_[pos_])) ++pos_;
    }
    const std::string text(s_.substr(start, pos_ - start));
    errno = 0;
    if (integral) {
      char* end = nullptr;
      const long long v = std::strtoll(text.c_str(), &end, 10);
      if (errno == 0) return out = ovix::Object::makeInt64(v), true;
      if (text[0] != '-') {
        errno = 0;
        const unsigned long long u = std::strtoull(text.c_str(), &end, 10);
        if (errno == 0) return out = ovix::Object::makeUInt64(u), true;
      }
      return fail("integer out of range: " + text);
    }
    const double d = std::strtod(text.c_str(), nullptr);
    if (!std::isfinite(d)) return fail("number out of range: " + text);
    out = ovix::Object::makeDouble(d);
    return true;
  }

  static bool isDigit(char c) { return c >= '0' && c <= '9'; }

  bool literal(std::string_view word) {
    if (s_.substr(pos_, word.size()) != word) return false;
    pos_ += word.size();
    return true;
  }

  bool consume(char c) {
    if (pos_ < s_.size() && s_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }

  void skipSpace() {
    while (pos_ < s_.size() &&
           (s_[pos_] == ' ' || s_[pos_] == '\t' || s_[pos_] == '\n' || s_[pos_] == '\r')) {
      ++pos_;
    }
  }

  bool fail(std::string why) {
    if (error.empty()) error = why + " at offset " + std::to_string(pos_);
    return false;
  }

  std::string_view s_;
  std::size_t pos_ = 0;
};

void writeString(std::string& out, const std::string& s) {
  out += '"';
  for (unsigned char c : s) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20 || c == 0x7F) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

void write(std::string& out, const ovix::Object& v) {
  char buf[64];
  switch (v.type()) {
    case ovix::Type::Null:
      out += "null";
      return;
    case ovix::Type::Bool:
      out += v.boolValue() ? "true" : "false";
      return;
    case ovix::Type::Int64:
      std::snprintf(buf, sizeof buf, "%" PRId64, v.int64Value());
      out += buf;
      return;
    case ovix::Type::UInt64:
      std::snprintf(buf, sizeof buf, "%" PRIu64, v.uint64Value());
      out += buf;
      return;
    case ovix::Type::Double:
      if (!std::isfinite(v.doubleValue())) {
        out += "null";  // JSON has no NaN or infinity
      } else {
        std::snprintf(buf, sizeof buf, "%.17g", v.doubleValue());
        out += buf;
        // A whole double written as "15" would read back as an integer.
        if (std::strpbrk(buf, ".eE") == nullptr) out += ".0";
      }
      return;
    case ovix::Type::String:
      writeString(out, v.stringValue());
      return;
    case ovix::Type::Data:
      out += '"' + hex(v.dataValue()) + '"';
      return;
    case ovix::Type::Date:
      std::snprintf(buf, sizeof buf, "%" PRId64, v.dateValue());
      out += buf;
      return;
    case ovix::Type::Uuid: {
      const ovix::Uuid u = v.uuidValue();
      out += '"';
      for (std::size_t i = 0; i < u.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%02x", u[i]);
        out += buf;
        if (i == 3 || i == 5 || i == 7 || i == 9) out += '-';
      }
      out += '"';
      return;
    }
    case ovix::Type::Array: {
      out += '[';
      v.applyArray([&](std::size_t i, const ovix::Object& item) {
        if (i) out += ", ";
        write(out, item);
        return true;
      });
      out += ']';
      return;
    }
    case ovix::Type::Dictionary: {
      out += '{';
      bool first = true;
      v.apply([&](const std::string& key, const ovix::Object& item) {
        if (!first) out += ", ";
        first = false;
        writeString(out, key);
        out += ": ";
        write(out, item);
        return true;
      });
      out += '}';
      return;
    }
    case ovix::Type::Connection:
    case ovix::Type::Error:
      writeString(out, v.description());
      return;
  }
}

}  // namespace

bool parseJson(std::string_view text, ovix::Object& out, std::string& error) {
  Parser parser(text);
  if (parser.document(out)) return true;
  error = parser.error;
  return false;
}

std::string toJson(const ovix::Object& value) {
  std::string out;
  write(out, value);
  return out;
}

std::string hex(const ovix::Bytes& bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (std::uint8_t b : bytes) {
    out += digits[b >> 4];
    out += digits[b & 0xF];
  }
  return out;
}

}  // namespace vexdctl
