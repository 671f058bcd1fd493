// A fresh folder for one test, removed with everything in it afterwards.
#pragma once

#include <string>

namespace platform::testing {

class TempDirectory {
 public:
  // Made under base (a folder on the file system the test needs).
  explicit TempDirectory(const std::string& base = "/tmp");
  ~TempDirectory();
  TempDirectory(const TempDirectory&) = delete;
  TempDirectory& operator=(const TempDirectory&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  // Writes a file below the folder (parents made as needed); answers its path.
  std::string write(const std::string& name, const std::string& contents) const;
  std::string mkdir(const std::string& name) const;

  // Sets or clears a file's immutable flag; false where the file system
  // keeps no such flag. Whatever is left set is cleared before removal.
  static bool setImmutable(const std::string& path, bool on);

 private:
  std::string path_;
};

}  // namespace platform::testing
