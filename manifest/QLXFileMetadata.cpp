// Making records: reading an object's attributes, extended attributes,
// hash and link target. Restoring and comparing are in
// QLXFileMetadataRestore.cpp.
#include "manifest/QLXFileMetadata.h"

#include <cstring>

#include "logging/QLXHLog.h"
#include "manifest/QLXFileHasher.h"
#include "platform/FileSystem.h"

using platform::Data;
using platform::Dictionary;
using platform::Value;

QLXFileMetadata::QLXFileMetadata(platform::Platform& platform, Dictionary dict)
    : platform_(&platform), dict_(std::move(dict)) {}

QLXFileMetadata QLXFileMetadata::fileMetaDataWithMetadataDictionary(platform::Platform& platform,
                                                                    Dictionary dict) {
  return QLXFileMetadata(platform, std::move(dict));
}

std::optional<QLXFileMetadata> QLXFileMetadata::fileMetadatatWithPath(platform::Platform& platform,
                                                                      const std::string& path,
                                                                      QLXFileHashSource* source) {
  return initWithPath(platform, path, source);
}

std::optional<QLXFileMetadata> QLXFileMetadata::initWithPath(platform::Platform& platform,
                                                             const std::string& path,
                                                             QLXFileHashSource* source) {
  return take(platform, path, source, true);
}

namespace {

// Whether the attributes describe the very contents that were hashed.
bool describes(const Dictionary& attributes, const platform::FileIdentity& hashed) {
  namespace attr = platform::attr;
  const Value* device = attributes.find(attr::kSystemNumber);
  const Value* inode = attributes.find(attr::kSystemFileNumber);
  const Value* size = attributes.find(attr::kFileSize);
  const Value* modified = attributes.find(attr::kModificationDate);
  return device && device->uint64Value() == hashed.device && inode &&
         inode->uint64Value() == hashed.inode && size && size->uint64Value() == hashed.size &&
         modified && modified->date() && *modified->date() == hashed.modified;
}

}  // namespace

std::optional<QLXFileMetadata> QLXFileMetadata::take(platform::Platform& platform,
                                                     const std::string& path,
                                                     QLXFileHashSource* source, bool retake) {
  std::optional<Data> hash = Data{};
  std::optional<std::string> target = std::string();
  std::optional<Dictionary> attributes = fileAttributesWithPath(platform, path);
  if (!attributes) {
    QLXHLog("Cannot get file attribute for %@", path);
    return std::nullopt;
  }
  std::optional<Dictionary> extended = extendedAttributesWithPath(platform, path);
  const Value* type = attributes->find(platform::attr::kFileType);
  if (type && type->isString() && *type->string() == platform::attr::kTypeSymbolicLink) {
    target = targetFileWithPath(platform, path);
  } else {
    std::optional<platform::FileIdentity> hashed;
    hash = fileHashWithPath(platform, path, source, &hashed);
    if (!hash) return std::nullopt;
    // Contents hashed ahead, or written to meanwhile, can be older or newer
    // than the attributes: then the record is taken again here, attributes
    // first, so the two describe one state of the file.
    if (retake && !hash->empty() && (!hashed || !describes(*attributes, *hashed)))
      return take(platform, path, nullptr, false);
  }
  // The pairs end at the first missing value: a record whose extended
  // attributes could not be read holds its attributes alone, one whose
  // link target could not be read lacks only the target.
  Dictionary dict;
  dict.set(kFileAttributesKey, std::move(*attributes));
  if (extended) {
    dict.set(kExtendedAttributesKey, std::move(*extended));
    dict.set(kFileHashKey, std::move(*hash));
    if (target) dict.set(kSymbolicLinkTargetKey, std::move(*target));
  }
  return QLXFileMetadata(platform, std::move(dict));
}

std::optional<Data> QLXFileMetadata::fileHashWithPath(
    platform::Platform& platform, const std::string& path, QLXFileHashSource* source,
    std::optional<platform::FileIdentity>* identity) {
  bool isDirectory = false;
  if (!platform.fileSystem->exists(path, &isDirectory)) {
    QLXHLog("File does not exist at %@", path);
    return std::nullopt;
  }
  if (isDirectory) return Data{};
  std::optional<Data> hash;
  if (source) {
    hash = source->fileHash(path, identity);
  } else {
    QLXFileHasher hasher(*platform.fileSystem, *platform.digests);
    hash = hasher.fileHash(path, identity);
  }
  if (!hash) {
    // Present but unreadable: an empty hash, and the manifest goes on.
    QLXHLog("Maybe it's an Skylet file (%@)?", path);
    return Data{};
  }
  return hash;
}

std::optional<Dictionary> QLXFileMetadata::fileAttributesWithPath(platform::Platform& platform,
                                                                  const std::string& path) {
  auto attributes = platform.fileSystem->attributesOfItem(path);
  if (!attributes) {
    QLXHLog("Get file attributes failed for %@ with error - %@", path, attributes.error());
    return std::nullopt;
  }
  return std::move(*attributes);
}

std::optional<std::string> QLXFileMetadata::targetFileWithPath(platform::Platform& platform,
                                                               const std::string& path) {
  auto target = platform.fileSystem->destinationOfSymbolicLink(path);
  if (!target) {
    QLXHLog("Could not get destination of symbolic link %@ with error - %@", path, target.error());
    return std::nullopt;
  }
  return std::move(*target);
}

std::optional<std::vector<std::string>> QLXFileMetadata::extendedAttributeKeysWithPath(
    platform::Platform& platform, const std::string& path) {
  auto size = platform.fileSystem->listExtendedAttributes(path, {});
  if (!size) {
    QLXHLog("Could not extract extended attributes from %@.", path);
    return std::nullopt;
  }
  std::vector<std::string> names;
  if (*size == 0) return names;
  std::vector<std::uint8_t> buffer(*size);
  auto length = platform.fileSystem->listExtendedAttributes(path, buffer);
  // The first call said there were names, so none now is an error.
  if (!length || *length < 1) {
    QLXHLog(
        "Could not extract extended attributes from %@. File is expected to have extended "
        "attributes.",
        path);
    return std::nullopt;
  }
  const char* list = reinterpret_cast<const char*>(buffer.data());
  for (std::size_t at = 0; at < *length;) {
    std::size_t n = ::strnlen(list + at, *length - at);
    names.emplace_back(list + at, n);
    at += n + 1;
  }
  return names;
}

std::optional<Data> QLXFileMetadata::valueForExtendedAttributesKey(platform::Platform& platform,
                                                                   const std::string& name,
                                                                   const std::string& path) {
  auto size = platform.fileSystem->getExtendedAttribute(path, name, {});
  if (!size) {
    QLXHLog("Could not extract extended file attributes from %@, returned %d", path, -1);
    return std::nullopt;
  }
  Data value(*size);
  auto length = platform.fileSystem->getExtendedAttribute(path, name, value);
  if (!length) {
    // The value changed size in between: the buffer goes back as it is.
    QLXHLog(
        "Coud not extract extended file attributes from %@. File is expected to have "
        "extended attributes.",
        path);
    return value;
  }
  value.resize(*length);
  return value;
}

std::optional<Dictionary> QLXFileMetadata::extendedAttributesWithPath(platform::Platform& platform,
                                                                      const std::string& path) {
  auto names = extendedAttributeKeysWithPath(platform, path);
  if (!names) {
    QLXHLog("Could not get attribute keys from file %@", path);
    return std::nullopt;
  }
  Dictionary attributes;
  for (const std::string& name : *names) {
    // A value that vanished between listing and reading is left out.
    if (auto value = valueForExtendedAttributesKey(platform, name, path))
      attributes.set(name, std::move(*value));
  }
  return attributes;
}

const Data* QLXFileMetadata::getHash() const {
  const Value* v = dict_.find(kFileHashKey);
  return v ? v->data() : nullptr;
}

const Dictionary* QLXFileMetadata::getFileAttributes() const {
  const Value* v = dict_.find(kFileAttributesKey);
  return v ? v->dictionary() : nullptr;
}

const Dictionary* QLXFileMetadata::getExtendedAttributes() const {
  const Value* v = dict_.find(kExtendedAttributesKey);
  return v ? v->dictionary() : nullptr;
}

const std::string* QLXFileMetadata::getFileType() const {
  const Dictionary* attributes = getFileAttributes();
  const Value* v = attributes ? attributes->find(platform::attr::kFileType) : nullptr;
  return v ? v->string() : nullptr;
}

const std::string* QLXFileMetadata::getTargetFile() const {
  const Value* v = dict_.find(kSymbolicLinkTargetKey);
  return v ? v->string() : nullptr;
}

std::int64_t QLXFileMetadata::getFileSize() const {
  const std::string* type = getFileType();
  if (!type || *type != platform::attr::kTypeRegular) return 0;
  const Value* size = getFileAttributes()->find(platform::attr::kFileSize);
  return size && size->isNumber() ? size->int64Value() : 0;
}
