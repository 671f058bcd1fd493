#include "platform/linux/LinuxReadableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/LinuxFileSystem.h"

namespace platform {

namespace {

FileIdentity identityOf(const struct stat& st) {
  FileIdentity id;
  id.device = static_cast<std::uint64_t>(st.st_dev);
  id.inode = static_cast<std::uint64_t>(st.st_ino);
  id.size = static_cast<std::uint64_t>(st.st_size);
  // The same arithmetic as the attribute dictionary's date, so the two
  // compare exactly.
  id.modified = Date::fromUnix(st.st_mtim.tv_sec, st.st_mtim.tv_nsec);
  id.changedSeconds = st.st_ctim.tv_sec;
  id.changedNanoseconds = static_cast<std::uint32_t>(st.st_ctim.tv_nsec);
  return id;
}

// Smaller files are read in one call: read-ahead advice would not pay for
// its two system calls.
constexpr off_t kAdviseFrom = 256 * 1024;

}  // namespace

Result<std::size_t> LinuxReadableFile::read(std::span<std::uint8_t> buffer) {
  opened_.reset();
  for (;;) {
    ssize_t n = ::read(fd_.get(), buffer.data(), buffer.size());
    if (n >= 0) return static_cast<std::size_t>(n);
    if (errno != EINTR) return posixError(errno, path_);
  }
}

Result<FileIdentity> LinuxReadableFile::identity() {
  if (opened_) {
    FileIdentity id = *opened_;
    opened_.reset();
    return id;
  }
  struct stat st {};
  if (::fstat(fd_.get(), &st) != 0) return posixError(errno, path_);
  return identityOf(st);
}

Result<std::unique_ptr<ReadableFile>> LinuxFileSystem::openForReading(const std::string& path) {
  // O_NONBLOCK so that a FIFO put in a file's place cannot hang the caller;
  // only regular files are read at all.
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd.valid()) return posixError(errno, path);
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return posixError(errno, path);
  if (!S_ISREG(st.st_mode)) return posixError(S_ISDIR(st.st_mode) ? EISDIR : EINVAL, path);
  // O_NONBLOCK stays: it changes nothing for a regular file.
  // Read once, front to back: larger read-ahead, and the pages go back to
  // the kernel first under pressure instead of pushing out what the rest of
  // the device has cached. Advice only; a refusal changes nothing.
  if (st.st_size >= kAdviseFrom) {
    ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    ::posix_fadvise(fd.get(), 0, 0, POSIX_FADV_NOREUSE);
  }
  return std::unique_ptr<ReadableFile>(
      std::make_unique<LinuxReadableFile>(std::move(fd), path, identityOf(st)));
}

}  // namespace platform
