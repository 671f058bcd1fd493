#include "platform/linux/LinuxClock.h"

#include <time.h>

#include <cmath>

namespace platform {

Date LinuxClock::now() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return Date::fromUnix(ts.tv_sec, ts.tv_nsec);
}

CalendarDay LinuxClock::localDay(Date moment) {
  time_t t = static_cast<time_t>(std::floor(moment.seconds()));
  tm local{};
  localtime_r(&t, &local);
  return CalendarDay{local.tm_year + 1900L, local.tm_mon + 1L, static_cast<long>(local.tm_mday)};
}

}  // namespace platform
