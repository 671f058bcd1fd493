// A file written without a name beside the one it replaces, given the
// name in one rename when committed.
#pragma once

#include <string>

#include "platform/FileSystem.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

class LinuxReplacementFile : public ReplacementFile {
 public:
  static Result<std::unique_ptr<ReplacementFile>> create(const std::string& path);
  ~LinuxReplacementFile() override;

  Status write(std::span<const std::uint8_t> bytes) override;
  Status readAt(std::uint64_t offset, std::span<std::uint8_t> buffer) override;
  Status commit() override;

 private:
  // tempName is empty for an unnamed file, else the name to remove when
  // the file is dropped (file systems without O_TMPFILE).
  LinuxReplacementFile(UniqueFd fd, std::string path, std::string tempName)
      : fd_(std::move(fd)), path_(std::move(path)), tempName_(std::move(tempName)) {}
  Status fail(int err);

  UniqueFd fd_;
  std::string path_;
  std::string tempName_;
  bool committed_ = false;
};

}  // namespace platform
