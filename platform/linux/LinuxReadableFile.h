// A regular file opened for one sequential read, for hashing.
#pragma once

#include <optional>

#include "platform/FileSystem.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

class LinuxReadableFile : public ReadableFile {
 public:
  // opened: the descriptor's identity when it was opened, answered by the
  // first identity() before anything is read (saves a call per file).
  LinuxReadableFile(UniqueFd fd, std::string path, FileIdentity opened)
      : fd_(std::move(fd)), path_(std::move(path)), opened_(opened) {}
  Result<std::size_t> read(std::span<std::uint8_t> buffer) override;
  Result<FileIdentity> identity() override;

 private:
  UniqueFd fd_;
  std::string path_;
  std::optional<FileIdentity> opened_;
};

}  // namespace platform
