#include "platform/testing/FaultInjectingFileSystem.h"

namespace platform::testing {

namespace {

class FailingReads : public ReadableFile {
 public:
  FailingReads(std::unique_ptr<ReadableFile> inner, std::string path, int err)
      : inner_(std::move(inner)), path_(std::move(path)), err_(err) {}
  Result<std::size_t> read(std::span<std::uint8_t> buffer) override {
    if (reads_++ == 0) return inner_->read(buffer);
    return injectedError(err_, path_);
  }
  Result<FileIdentity> identity() override { return inner_->identity(); }

 private:
  std::unique_ptr<ReadableFile> inner_;
  std::string path_;
  int err_;
  int reads_ = 0;
};

class FailingResources : public ForwardingDirectoryEnumerator {
 public:
  FailingResources(std::unique_ptr<DirectoryEnumerator> inner,
                   const std::set<std::pair<std::string, ResourceKey>>& faults)
      : ForwardingDirectoryEnumerator(std::move(inner)), faults_(faults) {}
  std::optional<std::string> nextPath() override {
    auto path = ForwardingDirectoryEnumerator::nextPath();
    current_ = path.value_or("");
    return path;
  }
  Result<bool> resourceValue(ResourceKey key) override {
    if (faults_.count({current_, key})) return injectedError(EIO, current_);
    return ForwardingDirectoryEnumerator::resourceValue(key);
  }

 private:
  const std::set<std::pair<std::string, ResourceKey>>& faults_;
  std::string current_;
};

}  // namespace

int FaultInjectingFileSystem::fault(FsCall call, const std::string& key) const {
  auto it = faults_.find({call, key});
  return it == faults_.end() ? 0 : it->second;
}

Result<Dictionary> FaultInjectingFileSystem::attributesOfItem(const std::string& path) {
  if (int err = fault(FsCall::AttributesOfItem, path)) return injectedError(err, path);
  return inner_.attributesOfItem(path);
}

Result<std::uint64_t> FaultInjectingFileSystem::sizeOfItem(const std::string& path) {
  if (int err = fault(FsCall::SizeOfItem, path)) return injectedError(err, path);
  return inner_.sizeOfItem(path);
}

Status FaultInjectingFileSystem::setAttributes(const Dictionary& attributes,
                                               const std::string& path) {
  if (int err = fault(FsCall::SetAttributes, path)) return injectedError(err, path);
  return inner_.setAttributes(attributes, path);
}

Result<std::string> FaultInjectingFileSystem::destinationOfSymbolicLink(const std::string& path) {
  if (int err = fault(FsCall::DestinationOfSymbolicLink, path)) return injectedError(err, path);
  return inner_.destinationOfSymbolicLink(path);
}

Result<std::unique_ptr<ReadableFile>> FaultInjectingFileSystem::openForReading(
    const std::string& path) {
  if (int err = fault(FsCall::OpenForReading, path)) return injectedError(err, path);
  auto file = inner_.openForReading(path);
  int err = fault(FsCall::Read, path);
  if (!file || !err) return file;
  return std::unique_ptr<ReadableFile>(std::make_unique<FailingReads>(std::move(*file), path, err));
}

Result<std::size_t> FaultInjectingFileSystem::listExtendedAttributes(
    const std::string& path, std::span<std::uint8_t> buffer) {
  if (int err = fault(FsCall::ListExtendedAttributes, path)) return injectedError(err, path);
  if (!buffer.empty() && fault(FsCall::ListExtendedAttributesAgain, path)) return std::size_t{0};
  return inner_.listExtendedAttributes(path, buffer);
}

Result<std::size_t> FaultInjectingFileSystem::getExtendedAttribute(const std::string& path,
                                                                   const std::string& name,
                                                                   std::span<std::uint8_t> buffer) {
  if (int err = fault(FsCall::GetExtendedAttribute, name)) return injectedError(err, path);
  if (int err = fault(FsCall::GetExtendedAttributeAgain, name); err && !buffer.empty())
    return injectedError(err, path);
  return inner_.getExtendedAttribute(path, name, buffer);
}

Status FaultInjectingFileSystem::setExtendedAttribute(const std::string& path,
                                                      const std::string& name,
                                                      std::span<const std::uint8_t> value) {
  if (int err = fault(FsCall::SetExtendedAttribute, name)) return injectedError(err, path);
  return inner_.setExtendedAttribute(path, name, value);
}

Status FaultInjectingFileSystem::lchown(const std::string& path, std::uint32_t owner,
                                        std::uint32_t group) {
  if (int err = fault(FsCall::Lchown, path)) return injectedError(err, path);
  return inner_.lchown(path, owner, group);
}

Status FaultInjectingFileSystem::lchmod(const std::string& path, std::uint16_t mode) {
  if (int err = fault(FsCall::Lchmod, path)) return injectedError(err, path);
  return inner_.lchmod(path, mode);
}

std::unique_ptr<DirectoryEnumerator> FaultInjectingFileSystem::enumeratorAtPath(
    const std::string& path, EnumerationErrorHandler errorHandler) {
  auto inner = inner_.enumeratorAtPath(path, std::move(errorHandler));
  if (resources_.empty()) return inner;
  return std::make_unique<FailingResources>(std::move(inner), resources_);
}

}  // namespace platform::testing
