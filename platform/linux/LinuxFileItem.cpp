#include "platform/linux/LinuxFileItem.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cerrno>
#include <optional>
#include <tuple>

#include "platform/linux/LinuxFileSystem.h"

namespace platform {

namespace {

timespec toTimespec(const Date& d) {
  std::int64_t sec = 0, nsec = 0;
  d.toUnix(&sec, &nsec);
  return timespec{static_cast<time_t>(sec), static_cast<long>(nsec)};
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

LinuxFileItem::LinuxFileItem(UniqueFd fd, std::string path, LinuxAccountNames& accounts)
    : fd_(std::move(fd)), path_(std::move(path)), accounts_(accounts) {}

LinuxFileItem::LinuxFileItem(int err, std::string path, LinuxAccountNames& accounts)
    : error_(err), path_(std::move(path)), accounts_(accounts) {}

LinuxFileItem LinuxFileItem::atPath(const std::string& path, LinuxAccountNames& accounts) {
  UniqueFd fd(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid()) return LinuxFileItem(errno, path, accounts);
  return LinuxFileItem(std::move(fd), path, accounts);
}

Error LinuxFileItem::failure(int err) const { return posixError(err, path_); }

std::string LinuxFileItem::procPath() const { return "/proc/self/fd/" + std::to_string(fd_.get()); }

Status LinuxFileItem::readType(mode_t* type, bool* immutable) {
  if (error_ != 0) return failure(error_);
  struct statx sx {};
  if (::statx(fd_.get(), "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_TYPE, &sx) != 0)
    return failure(errno);
  *type = sx.stx_mode & S_IFMT;
  if (immutable) *immutable = (sx.stx_attributes & STATX_ATTR_IMMUTABLE) != 0;
  return {};
}

// The immutable flag lives in the inode flags, reached through a descriptor
// opened for reading. Only files and folders are opened: opening a device or
// FIFO can block or have side effects. The open goes through the held
// descriptor, so no name is looked up again.
Status LinuxFileItem::setImmutable(mode_t type, bool on) {
  if (type != S_IFREG && type != S_IFDIR) return failure(EOPNOTSUPP);
  UniqueFd fd(type == S_IFDIR
                  ? ::openat(fd_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                  : ::open(procPath().c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid()) return failure(errno);
  int flags = 0;
  if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0) return failure(errno);
  int wanted = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
  if (wanted != flags && ::ioctl(fd.get(), FS_IOC_SETFLAGS, &wanted) != 0) return failure(errno);
  return {};
}

Status LinuxFileItem::setAttributes(const Dictionary& attributes) {
  mode_t type = 0;
  bool wasImmutable = false;
  if (Status s = readType(&type, &wasImmutable); !s) return s;

  // Everything is read and checked before anything is changed, so a bad
  // value leaves the item as it was.
  std::optional<std::uint32_t> owner, group;
  for (auto [nameKey, idKey, out, byName] :
       {std::tuple{attr::kOwnerAccountName, attr::kOwnerAccountID, &owner, true},
        std::tuple{attr::kGroupOwnerAccountName, attr::kGroupOwnerAccountID, &group, false}}) {
    const Value* name = attributes.find(nameKey);
    const Value* id = attributes.find(idKey);
    if (name) {
      if (!name->isString()) return failure(EINVAL);
      *out = byName ? accounts_.userID(*name->string()) : accounts_.groupID(*name->string());
    }
    if (!*out && id) {
      std::uint32_t value = 0;
      if (!readID(*id, &value)) return failure(EINVAL);
      *out = value;
    }
    if (name && !*out) return failure(EINVAL);  // unknown account, no ID to fall back on
  }
  std::optional<mode_t> mode;
  if (const Value* v = attributes.find(attr::kPosixPermissions)) {
    // Type bits above 07777 are dropped; a value that is no 16-bit mode at
    // all (-1 would read as 07777: set-ID, sticky, rwx) is refused.
    if (!v->isInteger() || v->uint64Value() > 0xffff) return failure(EINVAL);
    mode = static_cast<mode_t>(v->uint64Value() & 07777);
  }
  std::optional<timespec> mtime;
  if (const Value* v = attributes.find(attr::kModificationDate)) {
    if (!v->isDate()) return failure(EINVAL);
    mtime = toTimespec(*v->date());
  }
  std::optional<bool> immutable;
  if (const Value* v = attributes.find(attr::kImmutable)) {
    if (!v->isNumber()) return failure(EINVAL);
    immutable = v->boolValue();
  }
  // Creation date, busy, creator and type codes, extension-hidden and the
  // protection class have no Linux counterpart: accepted, nothing to do.

  // An immutable item refuses every other change, so the flag is lifted
  // first and put back last.
  if (immutable && wasImmutable) {
    if (Status s = setImmutable(type, false); !s) return s;
  }
  if ((owner || group) && ::fchownat(fd_.get(), "", owner ? *owner : static_cast<uid_t>(-1),
                                     group ? *group : static_cast<gid_t>(-1), AT_EMPTY_PATH) != 0)
    return failure(errno);
  // After chown, which clears set-ID bits. A link has no bits of its own, so
  // its permissions are left alone.
  if (mode && type != S_IFLNK && ::chmod(procPath().c_str(), *mode) != 0) return failure(errno);
  if (mtime) {
    // The kernel clamps a time to what the file system can hold (ext4 ends
    // in 2446) without a word: a date that does not land whole is refused
    // and the file keeps the time it had.
    struct statx before {
    }, after{};
    if (::statx(fd_.get(), "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_MTIME, &before) != 0)
      return failure(errno);
    timespec times[2] = {{0, UTIME_OMIT}, *mtime};
    if (::utimensat(fd_.get(), "", times, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW) != 0)
      return failure(errno);
    if (::statx(fd_.get(), "", AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW, STATX_MTIME, &after) != 0)
      return failure(errno);
    if (after.stx_mtime.tv_sec != mtime->tv_sec) {
      times[1] = {static_cast<time_t>(before.stx_mtime.tv_sec),
                  static_cast<long>(before.stx_mtime.tv_nsec)};
      (void)::utimensat(fd_.get(), "", times, AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW);
      const Date& date = *attributes.find(attr::kModificationDate)->date();
      return Error::posix(EOVERFLOW, "the file system cannot hold the date " + formatDate(date) +
                                         " (" + path_ + ")");
    }
  }
  if (immutable && *immutable) return setImmutable(type, true);
  return {};
}

Status LinuxFileItem::setExtendedAttribute(const std::string& name,
                                           std::span<const std::uint8_t> value) {
  if (error_ != 0) return failure(error_);
  // Through /proc the call lands on the held object itself, a link included
  // (the magic link is not followed any further).
  if (::setxattr(procPath().c_str(), name.c_str(), value.data(), value.size(), 0) != 0)
    return failure(errno);
  return {};
}

Status LinuxFileItem::lchown(std::uint32_t owner, std::uint32_t group) {
  if (error_ != 0) return failure(error_);
  if (::fchownat(fd_.get(), "", owner, group, AT_EMPTY_PATH) != 0) return failure(errno);
  return {};
}

Status LinuxFileItem::lchmod(std::uint16_t mode) {
  mode_t type = 0;
  if (Status s = readType(&type, nullptr); !s) return s;
  // Linux links carry no permission bits of their own; callers expect and
  // ignore this failure, as fchmodat with AT_SYMLINK_NOFOLLOW gives it.
  if (type == S_IFLNK) return failure(EOPNOTSUPP);
  if (::chmod(procPath().c_str(), mode & 07777) != 0) return failure(errno);
  return {};
}

}  // namespace platform
