#include "platform/testing/SettableClock.h"

namespace platform::testing {

Date SettableClock::now() {
  std::lock_guard<std::mutex> guard(lock_);
  return now_;
}

CalendarDay SettableClock::localDay(Date moment) {
  std::lock_guard<std::mutex> guard(lock_);
  return day_ ? *day_ : utcDay(moment);
}

void SettableClock::setNow(Date now) {
  std::lock_guard<std::mutex> guard(lock_);
  now_ = now;
}

void SettableClock::advance(double seconds) {
  std::lock_guard<std::mutex> guard(lock_);
  now_ = Date(now_.seconds() + seconds);
}

void SettableClock::setDay(CalendarDay day) {
  std::lock_guard<std::mutex> guard(lock_);
  day_ = day;
}

}  // namespace platform::testing
