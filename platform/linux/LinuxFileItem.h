// An object of the file system held by an O_PATH descriptor. Changes go
// through the descriptor, never through a name, so they land on the object
// that was reached even if its path now leads elsewhere.
#pragma once

#include <sys/types.h>

#include <string>

#include "platform/FileSystem.h"
#include "platform/linux/LinuxAccountNames.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

class LinuxFileItem : public FileItem {
 public:
  // Holds an O_PATH descriptor; path names the object in errors.
  LinuxFileItem(UniqueFd fd, std::string path, LinuxAccountNames& accounts);
  // An object that could not be reached: every call fails with err.
  LinuxFileItem(int err, std::string path, LinuxAccountNames& accounts);
  // The object at path itself: a link there is held as a link.
  static LinuxFileItem atPath(const std::string& path, LinuxAccountNames& accounts);

  Status setAttributes(const Dictionary& attributes) override;
  Status setExtendedAttribute(const std::string& name,
                              std::span<const std::uint8_t> value) override;
  Status lchown(std::uint32_t owner, std::uint32_t group) override;
  Status lchmod(std::uint16_t mode) override;

 private:
  // The type (S_IFMT bits) of the object and whether it is immutable.
  Status readType(mode_t* type, bool* immutable);
  // "/proc/self/fd/N": the held object for the calls that take no
  // descriptor (chmod, setxattr), reached without resolving a name again.
  std::string procPath() const;
  Status setImmutable(mode_t type, bool on);
  Error failure(int err) const;

  UniqueFd fd_;
  int error_ = 0;
  std::string path_;
  LinuxAccountNames& accounts_;
};

}  // namespace platform
