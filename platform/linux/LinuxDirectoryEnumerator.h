// Depth-first walk of a folder with openat/fstatat relative to each open
// folder, so deep trees do not pay for resolving long paths again and again.
#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileSystem.h"

namespace platform {

class LinuxDirectoryEnumerator : public DirectoryEnumerator {
 public:
  LinuxDirectoryEnumerator(std::string root, EnumerationErrorHandler errorHandler);

  std::optional<std::string> nextPath() override;
  Result<bool> resourceValue(ResourceKey key) override;
  void skipDescendants() override { descendNext_ = false; }

 private:
  struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
  };
  struct Name {
    std::string name;
    unsigned char type;  // d_type, DT_UNKNOWN when the file system does not say
  };
  // One open folder: its names, read whole and sorted, and the next to give.
  struct Level {
    std::unique_ptr<DIR, DirCloser> dir;
    std::string path;
    std::vector<Name> names;
    std::size_t next = 0;
  };

  // Opens a folder (relative to the innermost open one, or the root) and
  // reads its names; false after telling the error handler.
  bool enter(int parentFd, const std::string& name, const std::string& path);
  bool reportError(const std::string& path, int err);

  std::string root_;
  EnumerationErrorHandler errorHandler_;
  std::vector<Level> stack_;
  bool started_ = false;
  bool finished_ = false;
  // The entry last given out.
  std::string currentName_;
  std::string currentPath_;
  mode_t currentType_ = 0;
  int currentError_ = 0;
  bool descendNext_ = false;
};

}  // namespace platform
