// A file system that fails the calls a test names, for the paths it names,
// and passes everything else to the real one.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>

#include "platform/testing/ForwardingFileSystem.h"

namespace platform::testing {

enum class FsCall {
  AttributesOfItem,
  SizeOfItem,
  SetAttributes,
  DestinationOfSymbolicLink,
  OpenForReading,
  Read,                         // every read after the first chunk of the file
  ListExtendedAttributes,       // the size probe
  ListExtendedAttributesAgain,  // the call with a buffer: answers 0 names
  GetExtendedAttribute,         // the size probe; the key is the attribute's name
  GetExtendedAttributeAgain,    // the call with a buffer; the key is the name
  SetExtendedAttribute,         // the key is the attribute's name
  Lchown,
  Lchmod,
};

class FaultInjectingFileSystem : public ForwardingFileSystem {
 public:
  using ForwardingFileSystem::ForwardingFileSystem;

  // Fails the call for the key (a path, or an attribute name where noted)
  // with the errno.
  void fail(FsCall call, const std::string& key, int err = EIO) { faults_[{call, key}] = err; }
  // Fails an enumerated entry's resource value.
  void failResource(const std::string& path, ResourceKey key) { resources_.insert({path, key}); }
  void clear() { faults_.clear(), resources_.clear(); }

  Result<Dictionary> attributesOfItem(const std::string& path) override;
  Result<std::uint64_t> sizeOfItem(const std::string& path) override;
  Status setAttributes(const Dictionary& attributes, const std::string& path) override;
  Result<std::string> destinationOfSymbolicLink(const std::string& path) override;
  Result<std::unique_ptr<ReadableFile>> openForReading(const std::string& path) override;
  Result<std::size_t> listExtendedAttributes(const std::string& path,
                                             std::span<std::uint8_t> buffer) override;
  Result<std::size_t> getExtendedAttribute(const std::string& path, const std::string& name,
                                           std::span<std::uint8_t> buffer) override;
  Status setExtendedAttribute(const std::string& path, const std::string& name,
                              std::span<const std::uint8_t> value) override;
  Status lchown(const std::string& path, std::uint32_t owner, std::uint32_t group) override;
  Status lchmod(const std::string& path, std::uint16_t mode) override;
  std::unique_ptr<DirectoryEnumerator> enumeratorAtPath(
      const std::string& path, EnumerationErrorHandler errorHandler) override;

 private:
  // The errno of a fault for the call and key, 0 when there is none.
  int fault(FsCall call, const std::string& key) const;

  std::map<std::pair<FsCall, std::string>, int> faults_;
  std::set<std::pair<std::string, ResourceKey>> resources_;
};

}  // namespace platform::testing
