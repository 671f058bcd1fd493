#include "platform/testing/TempDirectory.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace platform::testing {

namespace {

// A test that made something immutable and failed before undoing it must
// not leave an undeletable folder behind.
void clearImmutable(const std::filesystem::path& root) {
  std::error_code ec;
  TempDirectory::setImmutable(root, false);
  for (auto it = std::filesystem::recursive_directory_iterator(root, ec);
       !ec && it != std::filesystem::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_regular_file(ec) || (it->is_directory(ec) && !it->is_symlink(ec)))
      TempDirectory::setImmutable(it->path(), false);
  }
}

}  // namespace

bool TempDirectory::setImmutable(const std::string& path, bool on) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  int flags = 0;
  bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  int wanted = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
  if (ok && wanted != flags) ok = ::ioctl(fd, FS_IOC_SETFLAGS, &wanted) == 0;
  ::close(fd);
  return ok;
}

TempDirectory::TempDirectory(const std::string& base) {
  std::string tmpl = base + "/vexd-test-XXXXXX";
  if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed under " + base);
  path_ = tmpl;
}

TempDirectory::~TempDirectory() {
  clearImmutable(path_);
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string TempDirectory::write(const std::string& name, const std::string& contents) const {
  std::filesystem::path p = std::filesystem::path(path_) / name;
  std::filesystem::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << contents;
  return p.string();
}

std::string TempDirectory::mkdir(const std::string& name) const {
  std::filesystem::path p = std::filesystem::path(path_) / name;
  std::filesystem::create_directories(p);
  return p.string();
}

}  // namespace platform::testing
