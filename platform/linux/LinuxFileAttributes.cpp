// Reading and setting the attribute dictionary of an item.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "platform/linux/LinuxFileItem.h"
#include "platform/linux/LinuxFileSystem.h"

namespace platform {

namespace {

const char* fileTypeName(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return attr::kTypeRegular;
    case S_IFDIR:
      return attr::kTypeDirectory;
    case S_IFLNK:
      return attr::kTypeSymbolicLink;
    case S_IFSOCK:
      return attr::kTypeSocket;
    case S_IFCHR:
      return attr::kTypeCharacterSpecial;
    case S_IFBLK:
      return attr::kTypeBlockSpecial;
    case S_IFIFO:
      return attr::kTypeFIFO;
    default:
      return attr::kTypeUnknown;
  }
}

Date toDate(const statx_timestamp& t) { return Date::fromUnix(t.tv_sec, t.tv_nsec); }

}  // namespace

Result<Dictionary> LinuxFileSystem::attributesOfItem(const std::string& path) {
  struct statx sx {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &sx) !=
      0)
    return posixError(errno, path);
  Dictionary d;
  d.set(attr::kFileType, fileTypeName(sx.stx_mode));
  d.set(attr::kFileSize, static_cast<std::uint64_t>(sx.stx_size));
  d.set(attr::kOwnerAccountID, static_cast<std::uint64_t>(sx.stx_uid));
  d.set(attr::kGroupOwnerAccountID, static_cast<std::uint64_t>(sx.stx_gid));
  if (auto name = accounts_.userName(sx.stx_uid)) d.set(attr::kOwnerAccountName, *name);
  if (auto name = accounts_.groupName(sx.stx_gid)) d.set(attr::kGroupOwnerAccountName, *name);
  d.set(attr::kPosixPermissions, static_cast<std::uint64_t>(sx.stx_mode & 07777));
  if (sx.stx_mask & STATX_BTIME) d.set(attr::kCreationDate, toDate(sx.stx_btime));
  d.set(attr::kModificationDate, toDate(sx.stx_mtime));
  d.set(attr::kReferenceCount, static_cast<std::uint64_t>(sx.stx_nlink));
  d.set(attr::kSystemNumber,
        static_cast<std::uint64_t>(makedev(sx.stx_dev_major, sx.stx_dev_minor)));
  d.set(attr::kSystemFileNumber, static_cast<std::uint64_t>(sx.stx_ino));
  d.set(attr::kImmutable, (sx.stx_attributes & STATX_ATTR_IMMUTABLE) != 0);
  d.set(attr::kAppendOnly, (sx.stx_attributes & STATX_ATTR_APPEND) != 0);
  if (S_ISCHR(sx.stx_mode) || S_ISBLK(sx.stx_mode))
    d.set(attr::kDeviceIdentifier,
          static_cast<std::uint64_t>(makedev(sx.stx_rdev_major, sx.stx_rdev_minor)));
  return d;
}

Result<std::uint64_t> LinuxFileSystem::sizeOfItem(const std::string& path) {
  struct statx sx {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_SIZE, &sx) != 0)
    return posixError(errno, path);
  return static_cast<std::uint64_t>(sx.stx_size);
}

Status LinuxFileSystem::setAttributes(const Dictionary& attributes, const std::string& path) {
  // Every change goes to the one object reached here, even if its name is
  // given to something else meanwhile.
  return LinuxFileItem::atPath(path, accounts_).setAttributes(attributes);
}

}  // namespace platform
