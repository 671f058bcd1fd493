#include "platform/linux/LinuxReplacementFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <random>

#include "platform/linux/LinuxFileSystem.h"

namespace platform {

namespace {

std::string folderOf(const std::string& path) {
  std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string tempNameFor(const std::string& path) {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  std::size_t slash = path.find_last_of('/');
  std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  return folder + "." + name + "." + std::to_string(random() % 1000000000000ull);
}

}  // namespace

Result<std::unique_ptr<ReplacementFile>> LinuxReplacementFile::create(const std::string& path) {
  // Unnamed, so a walk of the folder meanwhile cannot meet a half-written
  // file.
  UniqueFd fd(::open(folderOf(path).c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0644));
  std::string tempName;
  if (!fd.valid()) {
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return posixError(errno, path);
    // Without O_TMPFILE: a hidden name beside the target.
    std::size_t slash = path.find_last_of('/');
    tempName = (slash == std::string::npos ? "" : path.substr(0, slash + 1)) + "." +
               path.substr(slash == std::string::npos ? 0 : slash + 1) + ".XXXXXX";
    fd.reset(::mkostemp(tempName.data(), O_CLOEXEC));
    if (!fd.valid()) return posixError(errno, path);
  }
  if (::fchmod(fd.get(), 0644) != 0) {
    int err = errno;
    if (!tempName.empty()) ::unlink(tempName.c_str());
    return posixError(err, path);
  }
  return std::unique_ptr<ReplacementFile>(
      new LinuxReplacementFile(std::move(fd), path, std::move(tempName)));
}

LinuxReplacementFile::~LinuxReplacementFile() {
  if (!committed_ && !tempName_.empty()) ::unlink(tempName_.c_str());
}

Status LinuxReplacementFile::fail(int err) { return posixError(err, path_); }

Status LinuxReplacementFile::write(std::span<const std::uint8_t> bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd_.get(), bytes.data() + done, bytes.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      return fail(errno);
    }
    done += static_cast<std::size_t>(n);
  }
  return {};
}

Status LinuxReplacementFile::readAt(std::uint64_t offset, std::span<std::uint8_t> buffer) {
  std::size_t done = 0;
  while (done < buffer.size()) {
    ssize_t n = ::pread(fd_.get(), buffer.data() + done, buffer.size() - done,
                        static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return fail(n < 0 ? errno : EIO);
    done += static_cast<std::size_t>(n);
  }
  return {};
}

Status LinuxReplacementFile::commit() {
  if (::fsync(fd_.get()) != 0) return fail(errno);
  if (tempName_.empty()) {
    // Named under a hidden temporary name first: linkat cannot replace.
    std::string proc = "/proc/self/fd/" + std::to_string(fd_.get());
    for (int attempt = 0;; ++attempt) {
      std::string name = tempNameFor(path_);
      if (::linkat(AT_FDCWD, proc.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
        tempName_ = std::move(name);
        break;
      }
      if (errno != EEXIST || attempt == 8) return fail(errno);
    }
  }
  if (::rename(tempName_.c_str(), path_.c_str()) != 0) return fail(errno);
  committed_ = true;
  return {};
}

Result<std::unique_ptr<ReplacementFile>> LinuxFileSystem::createReplacementFile(
    const std::string& path) {
  return LinuxReplacementFile::create(path);
}

}  // namespace platform
