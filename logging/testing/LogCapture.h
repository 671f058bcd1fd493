// For tests: sends the shared log model's file lines to a private file for
// the life of the object and reads the messages back without time stamps.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "logging/QLXLogModel.h"

class LogCapture {
 public:
  LogCapture() {
    static int serial = 0;
    path_ = std::filesystem::temp_directory_path() /
            ("vexd-log-" + std::to_string(getpid()) + "-" + std::to_string(++serial) + ".log");
    file_ = std::fopen(path_.c_str(), "w");
    QLXLogModel::sharedInstance().setLogFP(file_);
  }
  ~LogCapture() {
    QLXLogModel::sharedInstance().setLogFP(nullptr);
    if (file_) std::fclose(file_);
    std::filesystem::remove(path_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> messages() const {
    std::ifstream in(path_);
    std::vector<std::string> out;
    // "YYYY-MM-DD HH:MM:SS +0000 " is 26 characters.
    for (std::string line; std::getline(in, line);)
      out.push_back(line.size() >= 26 ? line.substr(26) : line);
    return out;
  }

  bool contains(const std::string& message) const {
    auto all = messages();
    return std::find(all.begin(), all.end(), message) != all.end();
  }

 private:
  std::filesystem::path path_;
  std::FILE* file_ = nullptr;
};
