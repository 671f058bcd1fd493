#include "platform/Clock.h"

#include <cstdint>

namespace platform {

CalendarDay utcDay(Date moment) {
  std::int64_t s = 0, ns = 0;
  moment.toUnix(&s, &ns);
  std::int64_t year = 0;
  unsigned month = 0, day = 0;
  civilFromDays((s >= 0 ? s : s - 86399) / 86400, &year, &month, &day);
  return CalendarDay{static_cast<long>(year), static_cast<long>(month), static_cast<long>(day)};
}

}  // namespace platform
