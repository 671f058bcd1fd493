// The record of one file-system object: its attributes, extended
// attributes, the SHA-1 of its contents and, for a link, its target. The
// record is its dictionary; everything else is read from it on demand.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/Platform.h"
#include "platform/Value.h"

class QLXFileHashSource;
namespace platform {
class FileItem;
}

class QLXFileMetadata {
 public:
  static constexpr const char* kFileAttributesKey = "QLXManifestFileAttributes";
  static constexpr const char* kExtendedAttributesKey = "QLXManifestFileExtendedAttributes";
  static constexpr const char* kFileHashKey = "QLXManifestFileHash";
  static constexpr const char* kSymbolicLinkTargetKey = "QLXManifestSymbolicLinkTargetFile";
  // Written by the database rebuild on every device; never a difference.
  static constexpr const char* kIgnoredExtendedAttribute = "com.velmor.ferrowd.dbRebuildUuid";

  // initWithDictionary: keeps the dictionary as it is, unchecked.
  QLXFileMetadata(platform::Platform& platform, platform::Dictionary dict);

  // Reads the object at the path; nothing when its attributes cannot be
  // read or, for anything but a link, when it cannot be hashed. Hashes come
  // from source when given (the manifest walk hashes ahead).
  static std::optional<QLXFileMetadata> initWithPath(platform::Platform& platform,
                                                     const std::string& path,
                                                     QLXFileHashSource* source = nullptr);
  static std::optional<QLXFileMetadata> fileMetadatatWithPath(platform::Platform& platform,
                                                              const std::string& path,
                                                              QLXFileHashSource* source = nullptr);
  static QLXFileMetadata fileMetaDataWithMetadataDictionary(platform::Platform& platform,
                                                            platform::Dictionary dict);

  // identity: as QLXFileHashSource::fileHash.
  static std::optional<platform::Data> fileHashWithPath(
      platform::Platform& platform, const std::string& path, QLXFileHashSource* source = nullptr,
      std::optional<platform::FileIdentity>* identity = nullptr);
  static std::optional<platform::Dictionary> fileAttributesWithPath(platform::Platform& platform,
                                                                    const std::string& path);
  static std::optional<std::vector<std::string>> extendedAttributeKeysWithPath(
      platform::Platform& platform, const std::string& path);
  static std::optional<platform::Data> valueForExtendedAttributesKey(platform::Platform& platform,
                                                                     const std::string& name,
                                                                     const std::string& path);
  static std::optional<platform::Dictionary> extendedAttributesWithPath(
      platform::Platform& platform, const std::string& path);
  static std::optional<std::string> targetFileWithPath(platform::Platform& platform,
                                                       const std::string& path);

  // Applies ownership, permissions, protection class and extended
  // attributes to the object at the path.
  bool restoreAttribuesToPath(const std::string& path) const;
  // The same onto an object already reached (messages name it by path), for
  // trees where something else could be put at the path meanwhile.
  bool restoreAttribuesToPath(const std::string& path, platform::FileItem& item) const;
  // 0 other absent, 1 types differ, 2 contents differ, 3 link targets
  // differ, 4 ownership or permissions differ, 5 extended attributes
  // differ, 6 no difference.
  std::int32_t compareWith(const QLXFileMetadata* other) const;
  // The attributes that may be set on a file, in the given order.
  platform::Dictionary fileAttributesAllowSet(const platform::Dictionary& attributes) const;

  // Typed reads of the dictionary: nullptr (or 0) for a value that is
  // missing or of the wrong type.
  const platform::Data* getHash() const;
  const platform::Dictionary* getFileAttributes() const;
  const platform::Dictionary* getExtendedAttributes() const;
  const std::string* getFileType() const;
  const std::string* getTargetFile() const;
  std::int64_t getFileSize() const;

  const platform::Dictionary& dict() const { return dict_; }
  // Hands the dictionary over, for storing a record that is done with.
  platform::Dictionary takeDict() && { return std::move(dict_); }

 private:
  // retake: whether a hash that no longer matches the attributes read may
  // have the record taken again (once).
  static std::optional<QLXFileMetadata> take(platform::Platform& platform, const std::string& path,
                                             QLXFileHashSource* source, bool retake);

  platform::Platform* platform_;
  platform::Dictionary dict_;
};
