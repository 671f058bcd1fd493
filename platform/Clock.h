// The wall clock and the local Gregorian calendar, injectable so that log
// expiry and daily file names can be tested without waiting days.
#pragma once

#include "platform/Value.h"

namespace platform {

struct CalendarDay {
  long year = 0;
  long month = 0;  // 1..12
  long day = 0;    // 1..31
};

// The day of a moment in UTC, for clocks that keep no time zone.
CalendarDay utcDay(Date moment);

class Clock {
 public:
  virtual ~Clock() = default;
  virtual Date now() = 0;
  // The day of a moment in the device's local time zone.
  virtual CalendarDay localDay(Date moment) = 0;
};

}  // namespace platform
