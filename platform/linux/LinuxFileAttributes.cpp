// Reading and setting the attribute dictionary of an item.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>

#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/UniqueFd.h"

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

Date toDate(const statx_timestamp& t) {
  return Date{static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9};
}

timespec toTimespec(const Date& d) {
  double whole = std::floor(d.seconds);
  long nsec = std::lround((d.seconds - whole) * 1e9);
  timespec ts{static_cast<time_t>(whole), nsec};
  if (ts.tv_nsec >= 1000000000L) {
    ts.tv_sec += 1;
    ts.tv_nsec -= 1000000000L;
  }
  return ts;
}

// The immutable flag lives in the inode flags, reached through an open
// descriptor. Only files and folders are opened: opening a device or FIFO
// can block or have side effects.
Status setImmutable(const std::string& path, mode_t type, bool on) {
  if (type != S_IFREG && type != S_IFDIR) return posixError(EOPNOTSUPP, path);
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid()) return posixError(errno, path);
  int flags = 0;
  if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0) return posixError(errno, path);
  int wanted = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
  if (wanted != flags && ::ioctl(fd.get(), FS_IOC_SETFLAGS, &wanted) != 0)
    return posixError(errno, path);
  return {};
}

// Reads an account ID value: a number that fits an ID (-1 would mean "leave
// unchanged" to chown, so it is refused like any other out-of-range value).
bool readID(const Value& v, std::uint32_t* id) {
  if (!v.isNumber() || v.isBoolean()) return false;
  std::int64_t n = v.int64Value();
  if (v.type() == Value::Type::UInt64 && v.uint64Value() > 0xfffffffeULL) return false;
  if (n < 0 || n > 0xfffffffeLL) return false;
  *id = static_cast<std::uint32_t>(n);
  return true;
}

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
  struct statx sx {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE, &sx) != 0)
    return posixError(errno, path);
  const mode_t type = sx.stx_mode & S_IFMT;
  const bool wasImmutable = (sx.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;

  // Everything is read and checked before anything is changed, so a bad
  // value leaves the item as it was.
  std::optional<std::uint32_t> owner, group;
  for (auto [nameKey, idKey, out, byName] :
       {std::tuple{attr::kOwnerAccountName, attr::kOwnerAccountID, &owner, true},
        std::tuple{attr::kGroupOwnerAccountName, attr::kGroupOwnerAccountID, &group, false}}) {
    const Value* name = attributes.find(nameKey);
    const Value* id = attributes.find(idKey);
    if (name) {
      if (!name->isString()) return posixError(EINVAL, path);
      *out = byName ? accounts_.userID(*name->string()) : accounts_.groupID(*name->string());
    }
    if (!*out && id) {
      std::uint32_t value = 0;
      if (!readID(*id, &value)) return posixError(EINVAL, path);
      *out = value;
    }
    if (name && !*out) return posixError(EINVAL, path);  // unknown account, no ID to fall back on
  }
  std::optional<mode_t> mode;
  if (const Value* v = attributes.find(attr::kPosixPermissions)) {
    if (!v->isInteger()) return posixError(EINVAL, path);
    mode = static_cast<mode_t>(v->uint64Value() & 07777);
  }
  std::optional<timespec> mtime;
  if (const Value* v = attributes.find(attr::kModificationDate)) {
    if (!v->isDate() || !std::isfinite(v->date()->seconds)) return posixError(EINVAL, path);
    mtime = toTimespec(*v->date());
  }
  std::optional<bool> immutable;
  if (const Value* v = attributes.find(attr::kImmutable)) {
    if (!v->isNumber()) return posixError(EINVAL, path);
    immutable = v->boolValue();
  }
  // Creation date, busy, creator and type codes, extension-hidden and the
  // protection class have no Linux counterpart: accepted, nothing to do.

  // An immutable item refuses every other change, so the flag is lifted
  // first and put back last.
  if (immutable && wasImmutable) {
    if (Status s = setImmutable(path, type, false); !s) return s;
  }
  if ((owner || group) &&
      ::fchownat(AT_FDCWD, path.c_str(), owner ? *owner : static_cast<uid_t>(-1),
                 group ? *group : static_cast<gid_t>(-1), AT_SYMLINK_NOFOLLOW) != 0)
    return posixError(errno, path);
  // After chown, which clears set-ID bits. A link has no bits of its own and
  // is never followed, so its permissions are left alone.
  if (mode && type != S_IFLNK &&
      ::fchmodat(AT_FDCWD, path.c_str(), *mode, AT_SYMLINK_NOFOLLOW) != 0)
    return posixError(errno, path);
  if (mtime) {
    timespec times[2] = {{0, UTIME_OMIT}, *mtime};
    if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
      return posixError(errno, path);
  }
  if (immutable && *immutable) return setImmutable(path, type, true);
  return {};
}

}  // namespace platform
