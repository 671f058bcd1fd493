#pragma once

#include "platform/Clock.h"

namespace platform {

class LinuxClock : public Clock {
 public:
  Date now() override;
  CalendarDay localDay(Date moment) override;
};

}  // namespace platform
