#include "platform/linux/LinuxConfinedFolder.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "platform/Path.h"
#include "platform/linux/LinuxFileItem.h"

namespace platform {

namespace {

// Set once openat2 turned out to be missing, so the walk is used directly.
std::atomic<bool> openat2Missing{false};

}  // namespace

LinuxConfinedFolder::LinuxConfinedFolder(const std::string& path, LinuxAccountNames& accounts,
                                         Resolution resolution)
    : path_(path), accounts_(accounts), resolution_(resolution) {
  // "x/staging/" would follow a link at "staging"; the folder's own name is
  // held as it is, so that a link put there cannot redirect the tree.
  std::string held = appendPathComponent(path, "");
  root_.reset(::open(held.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!root_.valid()) rootError_ = errno;
}

std::unique_ptr<FileItem> LinuxConfinedFolder::openItem(const std::string& relativePath) {
  std::string shown = appendPathComponent(path_, relativePath);
  auto unreachable = [&](int err) {
    return std::make_unique<LinuxFileItem>(err, shown, accounts_);
  };
  if (rootError_ != 0) return unreachable(rootError_);
  // A NUL would cut the path short where the kernel reads it.
  if (relativePath.find('\0') != std::string::npos) return unreachable(EINVAL);

  std::vector<std::string_view> components;
  std::string relative;
  std::string_view rest = relativePath;
  while (!rest.empty()) {
    std::size_t slash = rest.find('/');
    std::string_view name = rest.substr(0, slash);
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
    if (name.empty() || name == ".") continue;
    if (name == "..") return unreachable(EXDEV);  // as RESOLVE_BENEATH answers
    components.push_back(name);
    if (!relative.empty()) relative += '/';
    relative += name;
  }

  int fd =
      components.empty() ? ::fcntl(root_.get(), F_DUPFD_CLOEXEC, 0) : resolve(relative, components);
  if (fd < 0) return unreachable(components.empty() ? errno : -fd);
  return std::make_unique<LinuxFileItem>(UniqueFd(fd), shown, accounts_);
}

int LinuxConfinedFolder::resolve(const std::string& relative,
                                 const std::vector<std::string_view>& components) {
  if (resolution_ == Resolution::Openat2 && !openat2Missing.load(std::memory_order_relaxed)) {
    // O_PATH with O_NOFOLLOW holds a link at the end as the link itself;
    // a link anywhere before it fails with ELOOP.
    open_how how{};
    how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    long fd = ::syscall(SYS_openat2, root_.get(), relative.c_str(), &how, sizeof how);
    if (fd >= 0) return static_cast<int>(fd);
    // A seccomp filter may refuse openat2 with EPERM; the walk is the same.
    if (errno != ENOSYS && errno != EPERM) return -errno;
    if (errno == ENOSYS) openat2Missing = true;
  }
  return walk(components);
}

int LinuxConfinedFolder::walk(const std::vector<std::string_view>& components) {
  UniqueFd held;
  int parent = root_.get();
  for (std::size_t i = 0; i < components.size(); ++i) {
    std::string name(components[i]);
    UniqueFd next(::openat(parent, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!next.valid()) return -errno;
    if (i + 1 == components.size()) return next.release();
    struct stat st {};
    if (::fstat(next.get(), &st) != 0) return -errno;
    if (S_ISLNK(st.st_mode)) return -ELOOP;
    if (!S_ISDIR(st.st_mode)) return -ENOTDIR;
    held = std::move(next);
    parent = held.get();
  }
  return -ENOENT;  // not reached: components is never empty
}

}  // namespace platform
