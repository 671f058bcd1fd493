// Collects what the process's log model writes while it is alive, so a
// test can check the exact messages and their order.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace platform::testing {

class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The messages so far, one per line, without their time stamps.
  std::vector<std::string> messages() const;
  std::size_t count(const std::string& message) const;
  bool contains(const std::string& message) const { return count(message) > 0; }
  // Messages so far that contain the text.
  std::vector<std::string> matching(const std::string& text) const;

 private:
  std::FILE* stream_ = nullptr;
  std::FILE* previous_ = nullptr;
  char* buffer_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace platform::testing
