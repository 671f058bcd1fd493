// The platform's date: what property lists, file times and clocks share.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace platform {

// A moment as whole seconds from 2001-01-01 00:00:00 UTC, the reference of
// property-list dates, plus a fraction of the same sign (|fraction| < 1).
// Split so, it holds every 64-bit float date of a binary property list bit
// for bit, every XML date of years 1 to 9999 with its fraction, and
// nanosecond file times exactly; one double since 1970 holds none of these.
struct Date {
  static constexpr std::int64_t kSecondsFrom1970To2001 = 978307200;

  std::int64_t whole = 0;
  double fraction = 0;

  Date() = default;
  // From seconds since 1970 (clocks and tests): exact to the double given.
  explicit Date(double secondsSince1970);
  // A binary property list's date: seconds since 2001 as a 64-bit float.
  // Nothing when it is not a number or lies beyond what a 64-bit count of
  // seconds since 1970 (a file time) can hold (beyond some 146 billion years).
  static std::optional<Date> fromReferenceSeconds(double since2001);
  // A file time: seconds since 1970 and nanoseconds (0 to 999999999).
  static Date fromUnix(std::int64_t seconds, std::int64_t nanoseconds);
  // Whole seconds since 2001 and a fraction of the same sign; nothing when
  // the seconds lie beyond a file time's range.
  static std::optional<Date> fromParts(std::int64_t whole, double fraction);

  // Seconds since 2001 as a 64-bit float: bit for bit what
  // fromReferenceSeconds was given.
  double referenceSeconds() const { return static_cast<double>(whole) + fraction; }
  // Seconds since 1970, to the nearest double.
  double seconds() const;
  // Seconds since 1970 rounded down and the nanoseconds after them (to the
  // nearest nanosecond).
  void toUnix(std::int64_t* seconds, std::int64_t* nanoseconds) const;

  friend bool operator==(const Date&, const Date&) = default;
  // Whole seconds are truncated toward 2001, so they order first.
  friend auto operator<=>(const Date&, const Date&) = default;
};

// Proleptic Gregorian calendar, valid for any 64-bit count of days.
std::int64_t daysFromCivil(std::int64_t year, unsigned month, unsigned day);
void civilFromDays(std::int64_t days, std::int64_t* year, unsigned* month, unsigned* day);

// "YYYY-MM-DD HH:MM:SS +0000" in UTC, the platform's standard text of a date.
std::string formatDate(const Date& d);

}  // namespace platform
