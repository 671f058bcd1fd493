// A process whose restart never happens: it counts the calls and answers as
// a failed restart would. exit() really ends the process, for death tests.
#pragma once

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "platform/Process.h"

namespace platform::testing {

class RecordingProcess : public Process {
 public:
  [[noreturn]] void exit(int status) override {
    std::fflush(nullptr);
    std::_Exit(status);
  }
  void sync() override { ++syncs; }
  bool reboot() override {
    ++reboots;
    return false;
  }

  std::atomic<int> syncs{0};
  std::atomic<int> reboots{0};
};

}  // namespace platform::testing
