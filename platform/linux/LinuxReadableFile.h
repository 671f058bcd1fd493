// A regular file opened for one sequential read, for hashing.
#pragma once

#include "platform/FileSystem.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

class LinuxReadableFile : public ReadableFile {
 public:
  LinuxReadableFile(UniqueFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}
  Result<std::size_t> read(std::span<std::uint8_t> buffer) override;
  Result<FileIdentity> identity() override;

 private:
  UniqueFd fd_;
  std::string path_;
};

}  // namespace platform
