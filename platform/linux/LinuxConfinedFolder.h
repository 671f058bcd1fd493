// A folder held by an O_PATH descriptor; objects below it are reached with
// openat2(RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS), or, where the kernel or a
// seccomp filter refuses openat2, by an equivalent walk of O_PATH|O_NOFOLLOW
// descriptors one name at a time.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/linux/LinuxAccountNames.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

class LinuxConfinedFolder : public ConfinedFolder {
 public:
  enum class Resolution { Openat2, Walk };

  LinuxConfinedFolder(const std::string& path, LinuxAccountNames& accounts,
                      Resolution resolution = Resolution::Openat2);

  std::unique_ptr<FileItem> openItem(const std::string& relativePath) override;

 private:
  // A descriptor of the object the components lead to, or -errno.
  int resolve(const std::string& relative, const std::vector<std::string_view>& components);
  int walk(const std::vector<std::string_view>& components);

  std::string path_;
  UniqueFd root_;
  int rootError_ = 0;
  LinuxAccountNames& accounts_;
  Resolution resolution_;
};

}  // namespace platform
