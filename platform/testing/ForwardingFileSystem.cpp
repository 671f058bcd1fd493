#include "platform/testing/ForwardingFileSystem.h"

#include <cstring>

namespace platform::testing {

Error injectedError(int err, const std::string& path) {
  return Error::posix(err, std::string(std::strerror(err)) + " (" + path + ")");
}

bool ForwardingFileSystem::exists(const std::string& path, bool* isDirectory) {
  return inner_.exists(path, isDirectory);
}
Status ForwardingFileSystem::createDirectory(const std::string& path, bool withIntermediates) {
  return inner_.createDirectory(path, withIntermediates);
}
Status ForwardingFileSystem::createFile(const std::string& path,
                                        std::span<const std::uint8_t> contents) {
  return inner_.createFile(path, contents);
}
Status ForwardingFileSystem::removeItem(const std::string& path) { return inner_.removeItem(path); }
Result<std::vector<std::string>> ForwardingFileSystem::contentsOfDirectory(
    const std::string& path) {
  return inner_.contentsOfDirectory(path);
}
Result<Dictionary> ForwardingFileSystem::attributesOfItem(const std::string& path) {
  return inner_.attributesOfItem(path);
}
Result<std::uint64_t> ForwardingFileSystem::sizeOfItem(const std::string& path) {
  return inner_.sizeOfItem(path);
}
Status ForwardingFileSystem::setAttributes(const Dictionary& attributes, const std::string& path) {
  return inner_.setAttributes(attributes, path);
}
Result<bool> ForwardingFileSystem::resourceValue(const std::string& path, ResourceKey key) {
  return inner_.resourceValue(path, key);
}
Result<std::string> ForwardingFileSystem::destinationOfSymbolicLink(const std::string& path) {
  return inner_.destinationOfSymbolicLink(path);
}
Result<std::unique_ptr<ReplacementFile>> ForwardingFileSystem::createReplacementFile(
    const std::string& path) {
  return inner_.createReplacementFile(path);
}
Status ForwardingFileSystem::moveItem(const std::string& from, const std::string& to) {
  return inner_.moveItem(from, to);
}
Status ForwardingFileSystem::linkItem(const std::string& existing, const std::string& newPath) {
  return inner_.linkItem(existing, newPath);
}
std::unique_ptr<DirectoryEnumerator> ForwardingFileSystem::enumeratorAtPath(
    const std::string& path, EnumerationErrorHandler errorHandler) {
  return inner_.enumeratorAtPath(path, std::move(errorHandler));
}
Result<std::unique_ptr<ReadableFile>> ForwardingFileSystem::openForReading(
    const std::string& path) {
  return inner_.openForReading(path);
}
Result<std::size_t> ForwardingFileSystem::listExtendedAttributes(const std::string& path,
                                                                 std::span<std::uint8_t> buffer) {
  return inner_.listExtendedAttributes(path, buffer);
}
Result<std::size_t> ForwardingFileSystem::getExtendedAttribute(const std::string& path,
                                                               const std::string& name,
                                                               std::span<std::uint8_t> buffer) {
  return inner_.getExtendedAttribute(path, name, buffer);
}
Status ForwardingFileSystem::setExtendedAttribute(const std::string& path, const std::string& name,
                                                  std::span<const std::uint8_t> value) {
  return inner_.setExtendedAttribute(path, name, value);
}
Status ForwardingFileSystem::lchown(const std::string& path, std::uint32_t owner,
                                    std::uint32_t group) {
  return inner_.lchown(path, owner, group);
}
Status ForwardingFileSystem::lchmod(const std::string& path, std::uint16_t mode) {
  return inner_.lchmod(path, mode);
}
std::unique_ptr<ConfinedFolder> ForwardingFileSystem::openConfinedFolder(const std::string& path) {
  return inner_.openConfinedFolder(path);
}

}  // namespace platform::testing
