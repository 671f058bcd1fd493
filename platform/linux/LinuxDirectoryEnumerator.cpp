#include "platform/linux/LinuxDirectoryEnumerator.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/Path.h"
#include "platform/linux/LinuxFileSystem.h"

namespace platform {

namespace {

mode_t typeFromDirent(unsigned char type) {
  switch (type) {
    case DT_REG:
      return S_IFREG;
    case DT_DIR:
      return S_IFDIR;
    case DT_LNK:
      return S_IFLNK;
    case DT_FIFO:
      return S_IFIFO;
    case DT_SOCK:
      return S_IFSOCK;
    case DT_CHR:
      return S_IFCHR;
    case DT_BLK:
      return S_IFBLK;
    default:
      return 0;
  }
}

}  // namespace

LinuxDirectoryEnumerator::LinuxDirectoryEnumerator(std::string root,
                                                   EnumerationErrorHandler errorHandler)
    : root_(std::move(root)), errorHandler_(std::move(errorHandler)) {}

bool LinuxDirectoryEnumerator::reportError(const std::string& path, int err) {
  bool goOn = errorHandler_ ? errorHandler_(path, posixError(err, path)) : true;
  if (!goOn) finished_ = true;
  return goOn;
}

bool LinuxDirectoryEnumerator::enter(int parentFd, const std::string& name,
                                     const std::string& path) {
  // The start folder may be reached through a link, as a user naming it
  // expects; below it, a link is never entered.
  int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (parentFd == AT_FDCWD ? 0 : O_NOFOLLOW);
  int fd = ::openat(parentFd, name.c_str(), flags);
  if (fd < 0) {
    // A start that is not a folder has nothing below it; that is no error.
    if (errno == ENOTDIR && parentFd == AT_FDCWD) return false;
    reportError(path, errno);
    return false;
  }
  Level level;
  level.dir.reset(::fdopendir(fd));
  if (!level.dir) {
    int err = errno;
    ::close(fd);
    reportError(path, err);
    return false;
  }
  level.path = path;
  errno = 0;
  while (dirent* e = ::readdir(level.dir.get())) {
    if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
    level.names.push_back(Name{e->d_name, e->d_type});
  }
  if (errno != 0) {
    reportError(path, errno);
    return false;
  }
  std::sort(level.names.begin(), level.names.end(),
            [](const Name& a, const Name& b) { return a.name < b.name; });
  stack_.push_back(std::move(level));
  return true;
}

std::optional<std::string> LinuxDirectoryEnumerator::nextPath() {
  if (finished_) return std::nullopt;
  if (!started_) {
    started_ = true;
    enter(AT_FDCWD, root_, root_);
  } else if (descendNext_) {
    descendNext_ = false;
    Level& parent = stack_.back();
    enter(::dirfd(parent.dir.get()), currentName_, currentPath_);
  }
  while (!finished_ && !stack_.empty()) {
    Level& level = stack_.back();
    if (level.next == level.names.size()) {
      stack_.pop_back();
      continue;
    }
    Name& entry = level.names[level.next++];
    currentName_ = std::move(entry.name);
    currentError_ = 0;
    currentType_ = typeFromDirent(entry.type);
    if (currentType_ == 0) {
      struct stat st {};
      if (::fstatat(::dirfd(level.dir.get()), currentName_.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0)
        currentType_ = st.st_mode & S_IFMT;
      else
        currentError_ = errno;
    }
    descendNext_ = currentType_ == S_IFDIR;
    currentPath_ = entryPath(level.path, currentName_);
    return currentPath_;
  }
  finished_ = true;
  return std::nullopt;
}

Result<bool> LinuxDirectoryEnumerator::resourceValue(ResourceKey key) {
  if (currentError_ != 0) return posixError(currentError_, currentPath_);
  switch (key) {
    case ResourceKey::IsRegularFile:
      return currentType_ == S_IFREG;
    case ResourceKey::IsDirectory:
      return currentType_ == S_IFDIR;
    case ResourceKey::IsSymbolicLink:
      return currentType_ == S_IFLNK;
  }
  return false;
}

std::unique_ptr<DirectoryEnumerator> LinuxFileSystem::enumeratorAtPath(
    const std::string& path, EnumerationErrorHandler errorHandler) {
  return std::make_unique<LinuxDirectoryEnumerator>(path, std::move(errorHandler));
}

}  // namespace platform
