#include "platform/linux/LinuxFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/linux/LinuxConfinedFolder.h"
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
  // Written beside the target and renamed over it, so a reader (or a crash)
  // sees either the old file whole or the new one whole, never a part.
  std::size_t slash = path.find_last_of('/');
  std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string temp = folder + "." + name + ".XXXXXX";
  UniqueFd fd(::mkostemp(temp.data(), O_CLOEXEC));
  if (!fd.valid()) return posixError(errno, path);
  auto fail = [&](int err) {
    ::unlink(temp.c_str());
    return posixError(err, path);
  };
  if (::fchmod(fd.get(), 0644) != 0) return fail(errno);
  std::size_t done = 0;
  while (done < contents.size()) {
    ssize_t n = ::write(fd.get(), contents.data() + done, contents.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail(errno);
    }
    done += static_cast<std::size_t>(n);
  }
  if (::fsync(fd.get()) != 0) return fail(errno);
  if (::close(fd.release()) != 0) return fail(errno);
  if (::rename(temp.c_str(), path.c_str()) != 0) return fail(errno);
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

int fileTypeOf(const std::string& path, mode_t* type) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return errno;
  *type = st.st_mode & S_IFMT;
  return 0;
}

}  // namespace

Result<bool> LinuxFileSystem::resourceValue(const std::string& path, ResourceKey key) {
  mode_t type = 0;
  if (int err = fileTypeOf(path, &type)) return posixError(err, path);
  switch (key) {
    case ResourceKey::IsRegularFile:
      return type == S_IFREG;
    case ResourceKey::IsDirectory:
      return type == S_IFDIR;
    case ResourceKey::IsSymbolicLink:
      return type == S_IFLNK;
  }
  return false;
}

Result<std::string> LinuxFileSystem::destinationOfSymbolicLink(const std::string& path) {
  // The link's size is the target's length on most file systems but not all
  // (procfs says 0), so grow the buffer until the answer fits.
  std::string target(256, '\0');
  for (;;) {
    ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
    if (n < 0) return posixError(errno, path);
    if (static_cast<std::size_t>(n) < target.size()) {
      target.resize(static_cast<std::size_t>(n));
      return target;
    }
    if (target.size() >= (1u << 16)) return posixError(ENAMETOOLONG, path);
    target.resize(target.size() * 4);
  }
}

Status LinuxFileSystem::lchown(const std::string& path, std::uint32_t owner, std::uint32_t group) {
  if (::lchown(path.c_str(), owner, group) != 0) return posixError(errno, path);
  return {};
}

Status LinuxFileSystem::lchmod(const std::string& path, std::uint16_t mode) {
  // Linux links carry no permission bits of their own: for a link this
  // fails with EOPNOTSUPP, which callers expect and ignore.
  if (::fchmodat(AT_FDCWD, path.c_str(), mode & 07777, AT_SYMLINK_NOFOLLOW) != 0)
    return posixError(errno, path);
  return {};
}

std::unique_ptr<ConfinedFolder> LinuxFileSystem::openConfinedFolder(const std::string& path) {
  return std::make_unique<LinuxConfinedFolder>(path, accounts_);
}

Result<std::size_t> LinuxFileSystem::listExtendedAttributes(const std::string& path,
                                                            std::span<std::uint8_t> buffer) {
  ssize_t n = ::llistxattr(path.c_str(), reinterpret_cast<char*>(buffer.data()), buffer.size());
  if (n < 0) return posixError(errno, path);
  return static_cast<std::size_t>(n);
}

Result<std::size_t> LinuxFileSystem::getExtendedAttribute(const std::string& path,
                                                          const std::string& name,
                                                          std::span<std::uint8_t> buffer) {
  ssize_t n = ::lgetxattr(path.c_str(), name.c_str(), buffer.data(), buffer.size());
  if (n < 0) return posixError(errno, path);
  return static_cast<std::size_t>(n);
}

Status LinuxFileSystem::setExtendedAttribute(const std::string& path, const std::string& name,
                                             std::span<const std::uint8_t> value) {
  if (::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) != 0)
    return posixError(errno, path);
  return {};
}

}  // namespace platform
