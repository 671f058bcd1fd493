#include "platform/linux/LinuxFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/fs.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/linux/UniqueFd.h"

namespace platform {

Error posixError(int err, const std::string& path) {
  return Error::posix(err, std::string(std::strerror(err)) + " (" + path + ")");
}

bool LinuxFileSystem::exists(const std::string& path, bool* isDirectory) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    if (isDirectory) *isDirectory = false;
    return false;
  }
  if (isDirectory) *isDirectory = S_ISDIR(st.st_mode);
  return true;
}

Status LinuxFileSystem::createDirectory(const std::string& path, bool withIntermediates) {
  if (!withIntermediates) {
    if (::mkdir(path.c_str(), 0755) != 0) return posixError(errno, path);
    return {};
  }
  std::string partial;
  std::size_t pos = 0;
  while (pos <= path.size()) {
    std::size_t slash = path.find('/', pos);
    if (slash == std::string::npos) slash = path.size();
    partial = path.substr(0, slash);
    pos = slash + 1;
    if (partial.empty()) continue;
    if (::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return posixError(errno, partial);
  }
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return posixError(errno, path);
  if (!S_ISDIR(st.st_mode)) return posixError(ENOTDIR, path);
  return {};
}

Status LinuxFileSystem::createFile(const std::string& path,
                                   std::span<const std::uint8_t> contents) {
  UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!fd.valid()) return posixError(errno, path);
  std::size_t done = 0;
  while (done < contents.size()) {
    ssize_t n = ::write(fd.get(), contents.data() + done, contents.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return posixError(errno, path);
    }
    done += static_cast<std::size_t>(n);
  }
  if (::close(fd.release()) != 0) return posixError(errno, path);
  return {};
}

namespace {

// Removes below an open folder without following links out of the tree.
int removeAt(int dirFd, const char* name) {
  if (::unlinkat(dirFd, name, 0) == 0) return 0;
  if (errno != EISDIR && errno != EPERM) return errno;
  int fd = ::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return errno == ENOTDIR ? EPERM : errno;
  DIR* dir = ::fdopendir(fd);
  if (!dir) {
    int err = errno;
    ::close(fd);
    return err;
  }
  int result = 0;
  while (dirent* e = ::readdir(dir)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    int err = removeAt(::dirfd(dir), e->d_name);
    if (err != 0 && result == 0) result = err;
  }
  ::closedir(dir);
  if (result != 0) return result;
  return ::unlinkat(dirFd, name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

}  // namespace

Status LinuxFileSystem::removeItem(const std::string& path) {
  int err = removeAt(AT_FDCWD, path.c_str());
  if (err != 0) return posixError(err, path);
  return {};
}

Result<std::vector<std::string>> LinuxFileSystem::contentsOfDirectory(const std::string& path) {
  DIR* dir = ::opendir(path.c_str());
  if (!dir) return posixError(errno, path);
  std::vector<std::string> names;
  while (dirent* e = ::readdir(dir)) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    names.emplace_back(e->d_name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

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

std::optional<std::string> userName(uid_t uid) {
  passwd pw{};
  passwd* found = nullptr;
  char buf[4096];
  if (::getpwuid_r(uid, &pw, buf, sizeof buf, &found) != 0 || !found) return std::nullopt;
  return std::string(found->pw_name);
}

std::optional<std::string> groupName(gid_t gid) {
  group gr{};
  group* found = nullptr;
  char buf[4096];
  if (::getgrgid_r(gid, &gr, buf, sizeof buf, &found) != 0 || !found) return std::nullopt;
  return std::string(found->gr_name);
}

}  // namespace

Result<Dictionary> LinuxFileSystem::attributesOfItem(const std::string& path) {
  struct statx sx {};
  if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW,
              STATX_BASIC_STATS | STATX_BTIME, &sx) != 0)
    return posixError(errno, path);
  Dictionary d;
  d.set(attr::kFileType, fileTypeName(sx.stx_mode));
  d.set(attr::kFileSize, static_cast<std::uint64_t>(sx.stx_size));
  d.set(attr::kOwnerAccountID, static_cast<std::uint64_t>(sx.stx_uid));
  d.set(attr::kGroupOwnerAccountID, static_cast<std::uint64_t>(sx.stx_gid));
  if (auto name = userName(sx.stx_uid)) d.set(attr::kOwnerAccountName, *name);
  if (auto name = groupName(sx.stx_gid)) d.set(attr::kGroupOwnerAccountName, *name);
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

}  // namespace platform
