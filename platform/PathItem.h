// The object at a path, reached afresh by every call through the file
// system's path calls: for callers that hold only a path, where nobody else
// can rename things along it.
#pragma once

#include <string>

#include "platform/FileSystem.h"

namespace platform {

class PathItem : public FileItem {
 public:
  PathItem(FileSystem& fileSystem, std::string path)
      : fileSystem_(fileSystem), path_(std::move(path)) {}

  Status setAttributes(const Dictionary& attributes) override;
  Status setExtendedAttribute(const std::string& name,
                              std::span<const std::uint8_t> value) override;
  Status lchown(std::uint32_t owner, std::uint32_t group) override;
  Status lchmod(std::uint16_t mode) override;

 private:
  FileSystem& fileSystem_;
  std::string path_;
};

}  // namespace platform
