#include "logging/Formatter.h"

#include <cstdio>

namespace logging {

FormatArg::FormatArg(const platform::Value& v) {
  if (v.isNumber() && !v.isBoolean()) {
    if (v.type() == platform::Value::Type::Double) {
      kind_ = Kind::Double;
      d_ = v.doubleValue();
    } else if (v.type() == platform::Value::Type::UInt64) {
      kind_ = Kind::Unsigned;
      u_ = v.uint64Value();
    } else {
      kind_ = Kind::Signed;
      i_ = v.int64Value();
    }
    text_ = v.description();
    return;
  }
  kind_ = Kind::Text;
  text_ = v.description();
}

std::int64_t FormatArg::asSigned() const {
  switch (kind_) {
    case Kind::Signed:
      return i_;
    case Kind::Unsigned:
      return static_cast<std::int64_t>(u_);
    case Kind::Double:
      return static_cast<std::int64_t>(d_);
    case Kind::Text:
      return 0;
  }
  return 0;
}

std::uint64_t FormatArg::asUnsigned() const {
  return kind_ == Kind::Unsigned ? u_ : static_cast<std::uint64_t>(asSigned());
}

double FormatArg::asDouble() const {
  switch (kind_) {
    case Kind::Double:
      return d_;
    case Kind::Unsigned:
      return static_cast<double>(u_);
    default:
      return static_cast<double>(asSigned());
  }
}

std::string FormatArg::asText() const {
  if (!text_.empty() || kind_ == Kind::Text) return text_;
  switch (kind_) {
    case Kind::Signed:
      return std::to_string(i_);
    case Kind::Unsigned:
      return std::to_string(u_);
    default: {
      char buf[40];
      std::snprintf(buf, sizeof buf, "%g", d_);
      return buf;
    }
  }
}

namespace {

enum class Length { Default, Long, LongLong, Half, Char };

void appendPrintf(std::string& out, const std::string& conversion, auto value) {
  char buf[128];
  int n = std::snprintf(buf, sizeof buf, conversion.c_str(), value);
  if (n < 0) return;
  if (static_cast<std::size_t>(n) < sizeof buf) {
    out.append(buf, static_cast<std::size_t>(n));
    return;
  }
  std::string big(static_cast<std::size_t>(n) + 1, '\0');
  std::snprintf(big.data(), big.size(), conversion.c_str(), value);
  big.resize(static_cast<std::size_t>(n));
  out += big;
}

// Pads text to a width the way %s does, honouring '-'.
void appendPadded(std::string& out, const std::string& text, const std::string& flags, int width,
                  int precision) {
  std::string t = precision >= 0 && static_cast<std::size_t>(precision) < text.size()
                      ? text.substr(0, static_cast<std::size_t>(precision))
                      : text;
  std::size_t pad = width > 0 && static_cast<std::size_t>(width) > t.size()
                        ? static_cast<std::size_t>(width) - t.size()
                        : 0;
  bool left = flags.find('-') != std::string::npos;
  if (!left) out.append(pad, ' ');
  out += t;
  if (left) out.append(pad, ' ');
}

}  // namespace

std::string formatMessage(std::string_view fmt, std::span<const FormatArg> args) {
  std::string out;
  out.reserve(fmt.size() + 32);
  std::size_t next = 0;
  std::size_t i = 0;
  while (i < fmt.size()) {
    char c = fmt[i];
    if (c != '%') {
      out += c;
      ++i;
      continue;
    }
    std::size_t start = i++;
    std::string flags;
    while (i < fmt.size() && std::string_view("-+ #0").find(fmt[i]) != std::string_view::npos)
      flags += fmt[i++];
    int width = 0;
    while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9') width = width * 10 + (fmt[i++] - '0');
    int precision = -1;
    if (i < fmt.size() && fmt[i] == '.') {
      ++i;
      precision = 0;
      while (i < fmt.size() && fmt[i] >= '0' && fmt[i] <= '9')
        precision = precision * 10 + (fmt[i++] - '0');
    }
    Length length = Length::Default;
    if (i < fmt.size() && fmt[i] == 'l') {
      ++i;
      length = Length::Long;
      if (i < fmt.size() && fmt[i] == 'l') {
        ++i;
        length = Length::LongLong;
      }
    } else if (i < fmt.size() && fmt[i] == 'h') {
      ++i;
      length = Length::Half;
      if (i < fmt.size() && fmt[i] == 'h') {
        ++i;
        length = Length::Char;
      }
    } else if (i < fmt.size() && (fmt[i] == 'q' || fmt[i] == 'j' || fmt[i] == 'z')) {
      ++i;
      length = Length::LongLong;
    }
    if (i >= fmt.size()) {
      out.append(fmt.substr(start));
      break;
    }
    char conv = fmt[i++];
    if (conv == '%') {
      out += '%';
      continue;
    }
    std::string known = "@sdiuxXcfgeEp";
    if (known.find(conv) == std::string::npos) {
      out.append(fmt.substr(start, i - start));  // unknown: keep the text as written
      continue;
    }
    if (next >= args.size()) continue;  // a missing argument renders empty and is never read
    const FormatArg& arg = args[next++];
    // Built by appending only: GCC 12 misreads `"literal" + string` as an
    // overlapping copy (-Wrestrict) in optimised builds.
    std::string conversion(1, '%');
    conversion += flags;
    if (width > 0) conversion += std::to_string(width);
    if (precision >= 0) {
      conversion += '.';
      conversion += std::to_string(precision);
    }
    switch (conv) {
      case '@':
      case 's':
        appendPadded(out, arg.asText(), flags, width, conv == 's' ? precision : -1);
        break;
      case 'c':
        out += static_cast<char>(arg.asSigned());
        break;
      case 'd':
      case 'i':
        if (arg.kind() == FormatArg::Kind::Text) {
          appendPadded(out, arg.asText(), flags, width, -1);
        } else if (length == Length::Long || length == Length::LongLong) {
          appendPrintf(out, conversion + "lld", static_cast<long long>(arg.asSigned()));
        } else if (length == Length::Half) {
          appendPrintf(out, conversion + "d", static_cast<int>(static_cast<short>(arg.asSigned())));
        } else if (length == Length::Char) {
          appendPrintf(out, conversion + "d",
                       static_cast<int>(static_cast<signed char>(arg.asSigned())));
        } else {
          appendPrintf(out, conversion + "d",
                       static_cast<int>(static_cast<std::int32_t>(arg.asSigned())));
        }
        break;
      case 'u':
      case 'x':
      case 'X': {
        if (arg.kind() == FormatArg::Kind::Text) {
          appendPadded(out, arg.asText(), flags, width, -1);
          break;
        }
        std::string tail(1, conv);
        if (length == Length::Long || length == Length::LongLong) {
          appendPrintf(out, conversion + "ll" + tail,
                       static_cast<unsigned long long>(arg.asUnsigned()));
        } else {
          appendPrintf(out, conversion + tail,
                       static_cast<unsigned>(static_cast<std::uint32_t>(arg.asUnsigned())));
        }
        break;
      }
      case 'p':
        appendPrintf(out, conversion + "llx", static_cast<unsigned long long>(arg.asUnsigned()));
        break;
      default:  // f g e E
        appendPrintf(out, conversion + std::string(1, conv), arg.asDouble());
        break;
    }
  }
  return out;
}

}  // namespace logging
