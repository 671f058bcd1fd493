// Collects what the service logs to standard error while it is alive, one
// message per line.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace platform::testing {

class CapturedLog {
 public:
  CapturedLog() { ::testing::internal::CaptureStderr(); }
  ~CapturedLog() {
    if (!taken_) (void)::testing::internal::GetCapturedStderr();
  }

  // Ends the capture and answers the lines.
  const std::vector<std::string>& lines() {
    if (!taken_) {
      taken_ = true;
      std::istringstream in(::testing::internal::GetCapturedStderr());
      for (std::string line; std::getline(in, line);) lines_.push_back(line);
    }
    return lines_;
  }
  bool contains(const std::string& line) {
    return std::find(lines().begin(), lines().end(), line) != lines().end();
  }
  bool containsPrefix(const std::string& prefix) {
    return std::any_of(lines().begin(), lines().end(),
                       [&](const std::string& l) { return l.starts_with(prefix); });
  }
  std::string last() { return lines().empty() ? std::string() : lines().back(); }

 private:
  bool taken_ = false;
  std::vector<std::string> lines_;
};

}  // namespace platform::testing
