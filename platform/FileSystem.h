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

// The per-entry values a directory enumeration answers.
enum class ResourceKey { IsRegularFile, IsDirectory, IsSymbolicLink };

// The key's name as messages print it.
const char* resourceKeyName(ResourceKey key);

// A depth-first walk below one folder: a folder comes before its contents,
// the entries of one folder come in name order, links are listed as links
// and never entered.
class DirectoryEnumerator {
 public:
  virtual ~DirectoryEnumerator() = default;
  // The full path of the next entry; nothing when the walk is done.
  virtual std::optional<std::string> nextPath() = 0;
  // A value of the entry last returned by nextPath.
  virtual Result<bool> resourceValue(ResourceKey key) = 0;
  // Leaves out the contents of the folder last returned by nextPath.
  virtual void skipDescendants() = 0;
};

// Told about a folder that cannot be read (with its path); answers whether
// the walk goes on.
using EnumerationErrorHandler = std::function<bool(const std::string& path, const Error& error)>;

// A file opened for one sequential read of its contents.
// Which object an open file is and the state of its contents, so that what
// was read from it can be matched with attributes read by path.
struct FileIdentity {
  std::uint64_t device = 0;  // as attr::kSystemNumber
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  Date modified;  // exactly as attributesOfItem gives it
  std::int64_t changedSeconds = 0;
  std::uint32_t changedNanoseconds = 0;
  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

class ReadableFile {
 public:
  virtual ~ReadableFile() = default;
  // Fills up to buffer.size() bytes; 0 means end of file.
  virtual Result<std::size_t> read(std::span<std::uint8_t> buffer) = 0;
  // The open object's identity now (fstat of the descriptor).
  virtual Result<FileIdentity> identity() = 0;
};

// One object of the file system, reached once and held: every change lands
// on that very object, whatever is renamed or put at its path afterwards.
// Errors name the path the object was reached by.
class FileItem {
 public:
  virtual ~FileItem() = default;
  // As FileSystem::setAttributes.
  virtual Status setAttributes(const Dictionary& attributes) = 0;
  virtual Status setExtendedAttribute(const std::string& name,
                                      std::span<const std::uint8_t> value) = 0;
  // Ownership and permission bits of the object itself, links included.
  virtual Status lchown(std::uint32_t owner, std::uint32_t group) = 0;
  virtual Status lchmod(std::uint16_t mode) = 0;
};

// A folder held open, below which objects are reached without following any
// symbolic link and without leaving the folder, for trees that someone less
// trusted can rename things in.
class ConfinedFolder {
 public:
  virtual ~ConfinedFolder() = default;
  // The object at a path relative to the folder ("/" is the folder itself).
  // One that cannot be reached (missing, a link or a non-folder on the way,
  // a ".." component) answers every call with the reason.
  virtual std::unique_ptr<FileItem> openItem(const std::string& relativePath) = 0;
};

class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // Follows links, as the platform's existence test does.
  virtual bool exists(const std::string& path, bool* isDirectory = nullptr) = 0;
  virtual Status createDirectory(const std::string& path, bool withIntermediates) = 0;
  // Creates or replaces a file holding contents, in one step: readers see
  // the old contents or the new, never a mix, even after a crash.
  virtual Status createFile(const std::string& path, std::span<const std::uint8_t> contents) = 0;
  // Removes a file, link or whole tree.
  virtual Status removeItem(const std::string& path) = 0;
  // Names directly in a folder, sorted by name.
  virtual Result<std::vector<std::string>> contentsOfDirectory(const std::string& path) = 0;
  // The attribute dictionary of the item itself (links not followed).
  virtual Result<Dictionary> attributesOfItem(const std::string& path) = 0;
  // Its "FileSize" attribute alone, for walks that add up thousands of them.
  virtual Result<std::uint64_t> sizeOfItem(const std::string& path) = 0;

  // Applies the settable keys of the attribute dictionary to the item itself
  // (see docs/file-attributes.md); keys outside that set are ignored.
  virtual Status setAttributes(const Dictionary& attributes, const std::string& path) = 0;
  // One resource value of the item itself, as an enumeration answers it.
  virtual Result<bool> resourceValue(const std::string& path, ResourceKey key) = 0;
  virtual Result<std::string> destinationOfSymbolicLink(const std::string& path) = 0;
  // Fails when something exists at the destination already.
  virtual Status moveItem(const std::string& from, const std::string& to) = 0;
  // A hard link at newPath to the item at existing.
  virtual Status linkItem(const std::string& existing, const std::string& newPath) = 0;
  virtual std::unique_ptr<DirectoryEnumerator> enumeratorAtPath(
      const std::string& path, EnumerationErrorHandler errorHandler) = 0;
  // Opens a regular file (links followed) for reading its contents once;
  // the kernel is told the pages will not be needed again.
  virtual Result<std::unique_ptr<ReadableFile>> openForReading(const std::string& path) = 0;

  // Extended attributes of the item itself. Listing and reading take a
  // buffer; an empty buffer asks only for the size needed. The list is the
  // NUL-terminated names in the file system's order.
  virtual Result<std::size_t> listExtendedAttributes(const std::string& path,
                                                     std::span<std::uint8_t> buffer) = 0;
  virtual Result<std::size_t> getExtendedAttribute(const std::string& path, const std::string& name,
                                                   std::span<std::uint8_t> buffer) = 0;
  virtual Status setExtendedAttribute(const std::string& path, const std::string& name,
                                      std::span<const std::uint8_t> value) = 0;

  // Ownership and permission bits of the item itself, links included.
  virtual Status lchown(const std::string& path, std::uint32_t owner, std::uint32_t group) = 0;
  virtual Status lchmod(const std::string& path, std::uint16_t mode) = 0;

  // Holds the folder at path open: links among the folders above it are
  // followed, the folder's own name is not. When it cannot be opened, every
  // item of it answers with the reason. Lives no longer than this object.
  virtual std::unique_ptr<ConfinedFolder> openConfinedFolder(const std::string& path) = 0;
};

}  // namespace platform
