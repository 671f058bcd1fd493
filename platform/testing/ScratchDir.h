// A fresh directory for one test, removed with everything in it afterwards.
#pragma once

#include <string>

namespace platform::testing {

class ScratchDir {
 public:
  // Made under $TMPDIR (or /tmp) unless a parent is given.
  explicit ScratchDir(const std::string& parent = "");
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace platform::testing
