// Moving and linking items. A move within one file system is one rename;
// across file systems the tree is copied with its metadata, then the
// original removed, as the file manager does.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <utility>
#include <vector>

#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

namespace {

std::string joinPath(const std::string& folder, const std::string& name) {
  return folder.empty() || folder.back() == '/' ? folder + name : folder + "/" + name;
}

int copyContents(int from, int to) {
  // copy_file_range lets the kernel move the bytes (or share extents);
  // plain read/write covers file systems that cannot.
  for (;;) {
    ssize_t n = ::copy_file_range(from, nullptr, to, nullptr, 1 << 30, 0);
    if (n == 0) return 0;
    if (n > 0) continue;
    if (errno == EINTR) continue;
    if (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP) return errno;
    break;
  }
  std::vector<char> buf(1 << 18);
  for (;;) {
    ssize_t n = ::read(from, buf.data(), buf.size());
    if (n == 0) return 0;
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    for (ssize_t done = 0; done < n;) {
      ssize_t w = ::write(to, buf.data() + done, static_cast<std::size_t>(n - done));
      if (w < 0) {
        if (errno == EINTR) continue;
        return errno;
      }
      done += w;
    }
  }
}

// Extended attributes the destination file system refuses (another
// namespace, no support) are left behind rather than failing the move.
void copyExtendedAttributes(const std::string& from, const std::string& to) {
  ssize_t size = ::llistxattr(from.c_str(), nullptr, 0);
  if (size <= 0) return;
  std::vector<char> names(static_cast<std::size_t>(size));
  size = ::llistxattr(from.c_str(), names.data(), names.size());
  if (size <= 0) return;
  std::vector<char> value;
  for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
    const char* name = names.data() + at;
    at += std::strlen(name) + 1;
    ssize_t n = ::lgetxattr(from.c_str(), name, nullptr, 0);
    if (n < 0) continue;
    value.resize(static_cast<std::size_t>(n));
    n = ::lgetxattr(from.c_str(), name, value.data(), value.size());
    if (n >= 0) ::lsetxattr(to.c_str(), name, value.data(), static_cast<std::size_t>(n), 0);
  }
}

class TreeCopier {
 public:
  // Whether anything was created; the first item made is the top one.
  bool madeAny() const { return madeAny_; }

  int copy(const std::string& from, const std::string& to) {
    struct stat st {};
    if (::lstat(from.c_str(), &st) != 0) return errno;
    int err = 0;
    switch (st.st_mode & S_IFMT) {
      case S_IFREG:
        err = copyFile(from, to, st);
        break;
      case S_IFDIR:
        err = copyFolder(from, to);
        break;
      case S_IFLNK: {
        std::vector<char> target(static_cast<std::size_t>(st.st_size) + 1);
        ssize_t n = ::readlink(from.c_str(), target.data(), target.size());
        if (n < 0) return errno;
        if (static_cast<std::size_t>(n) == target.size()) return ENAMETOOLONG;
        target[static_cast<std::size_t>(n)] = '\0';
        if (::symlink(target.data(), to.c_str()) != 0) return errno;
        madeAny_ = true;
        break;
      }
      case S_IFIFO:
      case S_IFCHR:
      case S_IFBLK:
        if (::mknod(to.c_str(), st.st_mode, st.st_rdev) != 0) return errno;
        madeAny_ = true;
        break;
      default:
        return 0;  // a socket belongs to the process that bound it; it does not move
    }
    if (err != 0) return err;
    return copyMetadata(from, to, st);
  }

 private:
  int copyFile(const std::string& from, const std::string& to, const struct stat& st) {
    if (st.st_nlink > 1) {
      auto key = std::make_pair(st.st_dev, st.st_ino);
      auto it = linked_.find(key);
      if (it != linked_.end()) {
        if (::link(it->second.c_str(), to.c_str()) != 0) return errno;
        madeAny_ = true;
        return 0;
      }
      linked_.emplace(key, to);
    }
    UniqueFd in(::open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (!in.valid()) return errno;
    UniqueFd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out.valid()) return errno;
    madeAny_ = true;
    if (int err = copyContents(in.get(), out.get())) return err;
    return ::close(out.release()) == 0 ? 0 : errno;
  }

  int copyFolder(const std::string& from, const std::string& to) {
    if (::mkdir(to.c_str(), 0700) != 0) return errno;
    madeAny_ = true;
    DIR* dir = ::opendir(from.c_str());
    if (!dir) return errno;
    std::vector<std::string> names;
    errno = 0;
    while (dirent* e = ::readdir(dir)) {
      if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
        names.emplace_back(e->d_name);
    }
    int err = errno;
    ::closedir(dir);
    if (err != 0) return err;
    for (const std::string& name : names) {
      if (int e = copy(joinPath(from, name), joinPath(to, name))) return e;
    }
    return 0;
  }

  // Owner first (chown clears set-ID bits), then mode, then times last, so
  // nothing done afterwards moves the modification date.
  int copyMetadata(const std::string& from, const std::string& to, const struct stat& st) {
    if (::lchown(to.c_str(), st.st_uid, st.st_gid) != 0 && errno != EPERM) return errno;
    if (!S_ISLNK(st.st_mode) && ::chmod(to.c_str(), st.st_mode & 07777) != 0) return errno;
    copyExtendedAttributes(from, to);
    timespec times[2] = {st.st_atim, st.st_mtim};
    if (::utimensat(AT_FDCWD, to.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) return errno;
    return 0;
  }

  std::map<std::pair<dev_t, ino_t>, std::string> linked_;
  bool madeAny_ = false;
};

bool existsNoFollow(const std::string& path, int* err) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) == 0) return true;
  *err = errno == ENOENT ? 0 : errno;
  return false;
}

}  // namespace

Status LinuxFileSystem::moveItem(const std::string& from, const std::string& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return {};
  int err = errno;
  if (err == EINVAL) {
    // Some file systems do not know the no-replace flag; check, then rename.
    int probe = 0;
    if (existsNoFollow(to, &probe)) return posixError(EEXIST, to);
    if (probe != 0) return posixError(probe, to);
    if (::rename(from.c_str(), to.c_str()) == 0) return {};
    err = errno;
  }
  if (err != EXDEV) return posixError(err, from);

  int probe = 0;
  if (existsNoFollow(to, &probe)) return posixError(EEXIST, to);
  if (probe != 0) return posixError(probe, to);
  TreeCopier copier;
  if (int copyErr = copier.copy(from, to)) {
    // No half-copied tree is left behind, but nothing that someone else put
    // at the destination meanwhile is touched.
    if (copier.madeAny()) (void)removeItem(to);
    return posixError(copyErr, from);
  }
  return removeItem(from);
}

Status LinuxFileSystem::linkItem(const std::string& existing, const std::string& newPath) {
  if (::linkat(AT_FDCWD, existing.c_str(), AT_FDCWD, newPath.c_str(), 0) != 0)
    return posixError(errno, newPath);
  return {};
}

}  // namespace platform
