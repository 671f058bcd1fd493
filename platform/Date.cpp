#include "platform/Date.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace platform {

namespace {

constexpr std::int64_t kEpoch = Date::kSecondsFrom1970To2001;
// Whole seconds since 2001 are kept this far inside 64 bits, so that
// moving to 1970 and borrowing a second never overflow.
constexpr std::int64_t kMaxWhole = std::numeric_limits<std::int64_t>::max() - (1LL << 31);
constexpr std::int64_t kMinWhole = std::numeric_limits<std::int64_t>::min() + (1LL << 31);

Date normalised(std::int64_t whole, double fraction) {
  Date d;
  d.whole = whole;
  d.fraction = fraction;
  if (d.whole < 0 && d.fraction > 0) {
    d.whole += 1;
    d.fraction -= 1;
  } else if (d.whole > 0 && d.fraction < 0) {
    d.whole -= 1;
    d.fraction += 1;
  }
  return d;
}

}  // namespace

Date::Date(double secondsSince1970) {
  double x = std::isfinite(secondsSince1970) ? secondsSince1970 : 0;
  double w = std::floor(x);
  if (w > static_cast<double>(kMaxWhole / 2) || w < static_cast<double>(kMinWhole / 2)) return;
  *this = normalised(static_cast<std::int64_t>(w) - kEpoch, x - w);
}

std::optional<Date> Date::fromReferenceSeconds(double since2001) {
  // Doubles this large are whole numbers; the bound keeps the cast defined.
  if (!(since2001 > -0x1p62 && since2001 < 0x1p62)) return std::nullopt;
  double w = std::trunc(since2001);
  Date d;
  d.whole = static_cast<std::int64_t>(w);
  d.fraction = since2001 - w;  // exact: what trunc cuts off lies on the float's own grid
  return d;
}

Date Date::fromUnix(std::int64_t seconds, std::int64_t nanoseconds) {
  if (seconds > kMaxWhole) seconds = kMaxWhole;
  if (seconds < kMinWhole) seconds = kMinWhole;
  Date d;
  d.whole = seconds - kEpoch;
  d.fraction = static_cast<double>(nanoseconds) / 1e9;
  // Before 2001 the fraction counts back from the next second; taken as one
  // division it is the same double an XML date of that time reads as.
  if (d.whole < 0 && nanoseconds > 0) {
    d.whole += 1;
    d.fraction = -static_cast<double>(1000000000 - nanoseconds) / 1e9;
  }
  return d;
}

std::optional<Date> Date::fromParts(std::int64_t whole, double fraction) {
  if (whole > kMaxWhole / 2 || whole < kMinWhole / 2 || !(std::fabs(fraction) < 1))
    return std::nullopt;
  return normalised(whole, fraction);
}

double Date::seconds() const { return static_cast<double>(whole + kEpoch) + fraction; }

void Date::toUnix(std::int64_t* seconds, std::int64_t* nanoseconds) const {
  std::int64_t s = whole + kEpoch;
  double f = fraction;
  if (f < 0) {
    s -= 1;
    f += 1;
  }
  auto ns = static_cast<std::int64_t>(std::llround(f * 1e9));
  if (ns >= 1000000000) {
    s += 1;
    ns -= 1000000000;
  }
  *seconds = s;
  *nanoseconds = ns;
}

// Days since 1970 to and from a date, counted in 400-year eras.
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day) {
  year -= month <= 2 ? 1 : 0;
  std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  std::int64_t yearOfEra = year - era * 400;
  std::int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

void civilFromDays(std::int64_t days, std::int64_t* year, unsigned* month, unsigned* day) {
  days += 719468;
  std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  std::int64_t dayOfEra = days - era * 146097;
  std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  std::int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
  *day = static_cast<unsigned>(dayOfYear - (153 * shiftedMonth + 2) / 5 + 1);
  *month = static_cast<unsigned>(shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9);
  *year = yearOfEra + era * 400 + (*month <= 2 ? 1 : 0);
}

std::string formatDate(const Date& d) {
  std::int64_t s = 0, ns = 0;
  d.toUnix(&s, &ns);
  std::int64_t days = (s >= 0 ? s : s - 86399) / 86400;
  std::int64_t ofDay = s - days * 86400;
  std::int64_t year = 0;
  unsigned month = 0, day = 0;
  civilFromDays(days, &year, &month, &day);
  char buf[80];
  std::snprintf(buf, sizeof buf, "%04lld-%02u-%02u %02lld:%02lld:%02lld +0000",
                static_cast<long long>(year), month, day, static_cast<long long>(ofDay / 3600),
                static_cast<long long>(ofDay / 60 % 60), static_cast<long long>(ofDay % 60));
  return buf;
}

}  // namespace platform
