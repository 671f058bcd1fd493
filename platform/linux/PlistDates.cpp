#include "platform/linux/PlistDates.h"

#include <charconv>
#include <cstdio>
#include <cstring>

#include "platform/linux/PlistNode.h"

namespace platform {

namespace {

constexpr std::int64_t kEpoch = Date::kSecondsFrom1970To2001;

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
  return s;
}

bool digitsAt(std::string_view s, std::size_t at, std::size_t n, unsigned* value) {
  if (at + n > s.size()) return false;
  *value = 0;
  for (std::size_t i = at; i < at + n; ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
    *value = *value * 10 + static_cast<unsigned>(s[i] - '0');
  }
  return true;
}

// 1 - 0.digits, as the digits of the same length: before 2001 a fraction
// counts back from the next second, and in decimal that is exact.
std::string complement(std::string_view digits) {
  std::string out(digits);
  std::size_t i = out.size();
  while (i > 0 && out[i - 1] == '0') --i;
  if (i == 0) return out;
  out[i - 1] = static_cast<char>('0' + 10 - (out[i - 1] - '0'));
  while (--i > 0) out[i - 1] = static_cast<char>('0' + 9 - (out[i - 1] - '0'));
  return out;
}

// The nearest double to 0.digits.
double decimalFraction(std::string_view digits) {
  std::string text = "0." + std::string(digits);
  double v = 0;
  std::from_chars(text.data(), text.data() + text.size(), v);
  return v;
}

// The shortest digits after "0." that read back as x, for 0 < x < 1.
std::string shortestDigits(double x) {
  char buf[400];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, x, std::chars_format::fixed);
  std::string_view s(buf, ec == std::errc{} ? static_cast<std::size_t>(end - buf) : 0);
  std::size_t dot = s.find('.');
  return dot == std::string_view::npos ? std::string() : std::string(s.substr(dot + 1));
}

unsigned daysInMonth(std::int64_t year, unsigned month) {
  static const unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[month - 1];
}

}  // namespace

std::optional<Date> parseXmlDate(std::string_view text, std::string* why) {
  std::string_view s = trimmed(text);
  unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  bool shaped =
      digitsAt(s, 0, 4, &year) && s.size() > 4 && s[4] == '-' && digitsAt(s, 5, 2, &month) &&
      s.size() > 7 && s[7] == '-' && digitsAt(s, 8, 2, &day) && s.size() > 10 && s[10] == 'T' &&
      digitsAt(s, 11, 2, &hour) && s.size() > 13 && s[13] == ':' && digitsAt(s, 14, 2, &minute) &&
      s.size() > 16 && s[16] == ':' && digitsAt(s, 17, 2, &second) && s.back() == 'Z';
  std::string_view digits;
  if (shaped && s.size() > 20) {
    shaped = s[19] == '.' && s.size() > 21;
    digits = s.substr(20, s.size() - 21);
    for (char c : digits) shaped = shaped && c >= '0' && c <= '9';
  } else if (shaped) {
    shaped = s.size() == 20;
  }
  if (!shaped) {
    *why = "date \"" + std::string(s.substr(0, 64)) + "\" is not of the form YYYY-MM-DDTHH:MM:SSZ";
    return std::nullopt;
  }
  if (year < 1 || month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) ||
      hour > 23 || minute > 59 || second > 59) {
    // A leap second (:60) included: a count of seconds cannot hold it.
    *why = "date \"" + std::string(s) + "\" names no time this system can hold";
    return std::nullopt;
  }
  std::int64_t whole =
      daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second - kEpoch;
  double fraction = 0;
  if (digits.find_first_not_of('0') != std::string_view::npos) {
    if (whole >= 0) {
      fraction = decimalFraction(digits);
    } else {
      whole += 1;
      fraction = -decimalFraction(complement(digits));
    }
    // So many nines that the nearest double is a whole second.
    if (fraction == 1 || fraction == -1) whole += static_cast<std::int64_t>(fraction), fraction = 0;
  }
  return Date::fromParts(whole, fraction);
}

std::optional<std::string> formatXmlDate(const Date& date) {
  std::int64_t whole = date.whole;
  std::string digits;
  if (date.fraction < 0) {
    whole -= 1;
    digits = complement(shortestDigits(-date.fraction));
  } else if (date.fraction > 0) {
    digits = shortestDigits(date.fraction);
  }
  std::int64_t unix = whole + kEpoch;
  std::int64_t days = (unix >= 0 ? unix : unix - 86399) / 86400;
  std::int64_t ofDay = unix - days * 86400;
  std::int64_t year = 0;
  unsigned month = 0, day = 0;
  civilFromDays(days, &year, &month, &day);
  if (year < 1 || year > 9999) return std::nullopt;
  char buf[96];
  std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02lld:%02lld:%02lld",
                static_cast<long long>(year), month, day, static_cast<long long>(ofDay / 3600),
                static_cast<long long>(ofDay / 60 % 60), static_cast<long long>(ofDay % 60));
  return std::string(buf) + (digits.empty() ? "" : "." + digits) + "Z";
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

bool isDateTag(std::string_view text, std::size_t lt) {
  if (text.compare(lt, 5, "<date") != 0) return false;
  char after = lt + 5 < text.size() ? text[lt + 5] : '\0';
  return after == '>' || after == '/' || isSpace(after);
}

std::size_t occurrences(std::string_view text, std::string_view what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string_view::npos; at = text.find(what, at + 1))
    ++n;
  return n;
}

}  // namespace

std::optional<XmlDates> takeXmlDates(std::string_view text, std::string* why) {
  XmlDates out;
  std::size_t copied = 0;
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
      if (close != std::string_view::npos && isDateTag(text, i)) {
        if (text[close - 1] == '/') {
          *why = "XML property list holds an empty date";
          return std::nullopt;
        }
        std::size_t endTag = text.find("</date", close);
        std::size_t endClose = endTag == std::string_view::npos ? endTag : text.find('>', endTag);
        if (endClose == std::string_view::npos ||
            !trimmed(text.substr(endTag + 6, endClose - endTag - 6)).empty()) {
          *why = "XML property list has an unterminated date";
          return std::nullopt;
        }
        std::string_view body = text.substr(close + 1, endTag - close - 1);
        if (body.find_first_of("<&") != std::string_view::npos) {
          *why = "XML property list date holds markup";
          return std::nullopt;
        }
        auto date = parseXmlDate(body, why);
        if (!date) return std::nullopt;
        out.text.append(text.substr(copied, i - copied));
        out.text +=
            "<date>" +
            *formatXmlDate(*Date::fromParts(static_cast<std::int64_t>(out.dates.size()), 0)) +
            "</date>";
        out.dates.push_back(*date);
        copied = endClose + 1;
      }
      next = close == std::string_view::npos ? close : close + 1;
    }
    if (next == std::string_view::npos) break;
    i = next;
  }
  if (occurrences(text, "<date") != out.dates.size()) {
    *why = "XML property list holds \"<date\" outside a date element";
    return std::nullopt;
  }
  out.text.append(text.substr(copied));
  return out;
}

std::optional<std::size_t> xmlDateIndex(plist_t node) {
  std::int32_t sec = -1, usec = -1;
  plist_get_date_val(node, &sec, &usec);
  if (sec < 0 || usec != 0) return std::nullopt;
  return static_cast<std::size_t>(sec);
}

plist_t xmlDateIndexNode(std::size_t index) {
  return plist_new_date(static_cast<std::int32_t>(index), 0);
}

std::optional<std::string> putXmlDates(std::string_view xml, const std::vector<Date>& dates) {
  std::string out;
  out.reserve(xml.size());
  std::size_t copied = 0;
  for (std::size_t at = xml.find("<date>"); at != std::string_view::npos;
       at = xml.find("<date>", at + 1)) {
    std::size_t end = xml.find("</date>", at);
    if (end == std::string_view::npos) return std::nullopt;
    std::string why;
    auto index = parseXmlDate(xml.substr(at + 6, end - at - 6), &why);
    if (!index || index->fraction != 0 || index->whole < 0 ||
        static_cast<std::uint64_t>(index->whole) >= dates.size())
      return std::nullopt;
    auto text = formatXmlDate(dates[static_cast<std::size_t>(index->whole)]);
    if (!text) return std::nullopt;
    out.append(xml.substr(copied, at + 6 - copied));
    out += *text;
    copied = end;
  }
  out.append(xml.substr(copied));
  return out;
}

std::optional<double> binaryDateSeconds(plist_t node) {
  PlistMalloced<char> bytes;
  std::uint32_t length = 0;
  plist_to_bin(node, bytes.out(), &length);
  // "bplist00", then the one object: the date marker and a big-endian double.
  const auto* p = reinterpret_cast<const std::uint8_t*>(bytes.get());
  if (!p || length < 17 || p[8] != 0x33) return std::nullopt;
  std::uint64_t bits = 0;
  for (int k = 9; k < 17; ++k) bits = (bits << 8) | p[k];
  double seconds = 0;
  std::memcpy(&seconds, &bits, sizeof seconds);
  return seconds;
}

}  // namespace platform
