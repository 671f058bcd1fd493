#pragma once

#include "platform/FileSystem.h"

namespace platform {

class LinuxFileSystem : public FileSystem {
 public:
  bool exists(const std::string& path, bool* isDirectory = nullptr) override;
  Status createDirectory(const std::string& path, bool withIntermediates) override;
  Status createFile(const std::string& path, std::span<const std::uint8_t> contents) override;
  Status removeItem(const std::string& path) override;
  Result<std::vector<std::string>> contentsOfDirectory(const std::string& path) override;
  Result<Dictionary> attributesOfItem(const std::string& path) override;
};

// errno as the platform error, with the path as context.
Error posixError(int err, const std::string& path);

}  // namespace platform
