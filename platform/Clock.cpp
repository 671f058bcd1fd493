#include "platform/Clock.h"

#include <cmath>
#include <cstdint>

namespace platform {

CalendarDay utcDay(Date moment) {
  // Days since 1970 to a proleptic Gregorian date, counted in 400-year eras
  // so it holds for any year without the C library's time_t limits.
  std::int64_t days = static_cast<std::int64_t>(std::floor(moment.seconds / 86400.0)) + 719468;
  std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  std::int64_t dayOfEra = days - era * 146097;
  std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  std::int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
  std::int64_t day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
  std::int64_t month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
  std::int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
  return CalendarDay{static_cast<long>(year), static_cast<long>(month), static_cast<long>(day)};
}

}  // namespace platform
