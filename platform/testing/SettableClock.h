// A clock that stands still where a test puts it, so log expiry and daily
// file names can be checked without waiting days.
#pragma once

#include <mutex>
#include <optional>

#include "platform/Clock.h"

namespace platform::testing {

class SettableClock : public Clock {
 public:
  explicit SettableClock(Date now = Date{0}) : now_(now) {}

  Date now() override;
  // The day set with setDay, else the moment's UTC day.
  CalendarDay localDay(Date moment) override;

  void setNow(Date now);
  void advance(double seconds);
  void setDay(CalendarDay day);

 private:
  std::mutex lock_;
  Date now_;
  std::optional<CalendarDay> day_;
};

}  // namespace platform::testing
