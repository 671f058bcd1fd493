// Everything the core asks of the file system. Paths are UTF-8 strings; no
// call follows a symbolic link unless it says so.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Result.h"
#include "platform/Value.h"

namespace platform {

// Keys of the attribute dictionary (see docs/file-attributes.md).
namespace attr {
inline constexpr const char* kFileType = "FileType";
inline constexpr const char* kFileSize = "FileSize";
inline constexpr const char* kOwnerAccountID = "FileOwnerAccountID";
inline constexpr const char* kGroupOwnerAccountID = "FileGroupOwnerAccountID";
inline constexpr const char* kOwnerAccountName = "FileOwnerAccountName";
inline constexpr const char* kGroupOwnerAccountName = "FileGroupOwnerAccountName";
inline constexpr const char* kPosixPermissions = "FilePosixPermissions";
inline constexpr const char* kCreationDate = "FileCreationDate";
inline constexpr const char* kModificationDate = "FileModificationDate";
inline constexpr const char* kReferenceCount = "FileReferenceCount";
inline constexpr const char* kSystemNumber = "FileSystemNumber";
inline constexpr const char* kSystemFileNumber = "FileSystemFileNumber";
inline constexpr const char* kImmutable = "FileImmutable";
inline constexpr const char* kAppendOnly = "FileAppendOnly";
inline constexpr const char* kDeviceIdentifier = "FileDeviceIdentifier";
inline constexpr const char* kProtectionKey = "FileProtectionKey";
inline constexpr const char* kBusy = "FileBusy";
inline constexpr const char* kCreatorCode = "FileCreatorCode";
inline constexpr const char* kTypeCode = "FileTypeCode";
inline constexpr const char* kExtensionHidden = "FileExtensionHidden";

inline constexpr const char* kTypeRegular = "Regular";
inline constexpr const char* kTypeDirectory = "Directory";
inline constexpr const char* kTypeSymbolicLink = "SymbolicLink";
inline constexpr const char* kTypeSocket = "Socket";
inline constexpr const char* kTypeCharacterSpecial = "CharacterSpecial";
inline constexpr const char* kTypeBlockSpecial = "BlockSpecial";
inline constexpr const char* kTypeFIFO = "FIFO";
inline constexpr const char* kTypeUnknown = "Unknown";

inline constexpr const char* kProtectionNone = "ProtectionNone";
}  // namespace attr

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // Follows links, as the platform's existence test does.
  virtual bool exists(const std::string& path, bool* isDirectory = nullptr) = 0;
  virtual Status createDirectory(const std::string& path, bool withIntermediates) = 0;
  // Creates or replaces a file holding contents.
  virtual Status createFile(const std::string& path, std::span<const std::uint8_t> contents) = 0;
  // Removes a file, link or whole tree.
  virtual Status removeItem(const std::string& path) = 0;
  // Names directly in a folder, sorted by name.
  virtual Result<std::vector<std::string>> contentsOfDirectory(const std::string& path) = 0;
  // The attribute dictionary of the item itself (links not followed).
  virtual Result<Dictionary> attributesOfItem(const std::string& path) = 0;
};

}  // namespace platform
