// What an action writes to standard error, where the console log goes.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace platform::testing {

template <class Action>
std::string capturedStderr(Action&& action) {
  ::testing::internal::CaptureStderr();
  action();
  return ::testing::internal::GetCapturedStderr();
}

}  // namespace platform::testing
