// The file system of the running Linux kernel. The class is defined over
// several sources: basic items here, attributes, extended attributes,
// move/link/copy, enumeration and reading each in a file of their own.
#pragma once

#include "platform/FileSystem.h"
#include "platform/linux/LinuxAccountNames.h"

namespace platform {

class LinuxFileSystem : public FileSystem {
 public:
  bool exists(const std::string& path, bool* isDirectory = nullptr) override;
  Status createDirectory(const std::string& path, bool withIntermediates) override;
  Status createFile(const std::string& path, std::span<const std::uint8_t> contents) override;
  Result<std::unique_ptr<ReplacementFile>> createReplacementFile(const std::string& path) override;
  Status removeItem(const std::string& path) override;
  Result<std::vector<std::string>> contentsOfDirectory(const std::string& path) override;
  Result<Dictionary> attributesOfItem(const std::string& path) override;
  Result<std::uint64_t> sizeOfItem(const std::string& path) override;

  Status setAttributes(const Dictionary& attributes, const std::string& path) override;
  Result<bool> resourceValue(const std::string& path, ResourceKey key) override;
  Result<std::string> destinationOfSymbolicLink(const std::string& path) override;
  Status moveItem(const std::string& from, const std::string& to) override;
  Status linkItem(const std::string& existing, const std::string& newPath) override;
  std::unique_ptr<DirectoryEnumerator> enumeratorAtPath(
      const std::string& path, EnumerationErrorHandler errorHandler) override;
  Result<std::unique_ptr<ReadableFile>> openForReading(const std::string& path) override;

  Result<std::size_t> listExtendedAttributes(const std::string& path,
                                             std::span<std::uint8_t> buffer) override;
  Result<std::size_t> getExtendedAttribute(const std::string& path, const std::string& name,
                                           std::span<std::uint8_t> buffer) override;
  Status setExtendedAttribute(const std::string& path, const std::string& name,
                              std::span<const std::uint8_t> value) override;

  Status lchown(const std::string& path, std::uint32_t owner, std::uint32_t group) override;
  Status lchmod(const std::string& path, std::uint16_t mode) override;
  std::unique_ptr<ConfinedFolder> openConfinedFolder(const std::string& path) override;

 private:
  LinuxAccountNames accounts_;
};

// errno as the platform error, with the path as context.
Error posixError(int err, const std::string& path);

}  // namespace platform
