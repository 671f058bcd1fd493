#include "platform/linux/DirectBlockIo.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/LinuxFileSystem.h"

namespace platform {

Result<std::unique_ptr<BlockIo>> DirectBlockIo::open(const std::string& path) {
  int fd = -1;
  for (int access : {O_RDWR, O_RDONLY}) {
    fd = ::open(path.c_str(), access | O_DIRECT | O_CLOEXEC);
    if (fd < 0 && errno == EINVAL) fd = ::open(path.c_str(), access | O_CLOEXEC);
    if (fd >= 0 || (errno != EROFS && errno != EACCES)) break;
  }
  if (fd < 0) return posixError(errno, path);
  return std::unique_ptr<BlockIo>(new DirectBlockIo(UniqueFd(fd)));
}

Status DirectBlockIo::read(std::span<std::uint8_t> buffer, std::uint64_t offset) {
  std::size_t done = 0;
  while (done < buffer.size()) {
    ssize_t n = ::pread(fd_.get(), buffer.data() + done, buffer.size() - done,
                        static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return posixError(n < 0 ? errno : EIO, "disk read");
    done += static_cast<std::size_t>(n);
  }
  return Status::success();
}

Status DirectBlockIo::write(std::span<const std::uint8_t> bytes, std::uint64_t offset) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::pwrite(fd_.get(), bytes.data() + done, bytes.size() - done,
                         static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return posixError(n < 0 ? errno : EIO, "disk write");
    done += static_cast<std::size_t>(n);
  }
  return Status::success();
}

Status DirectBlockIo::flush() {
  if (::fdatasync(fd_.get()) != 0) return posixError(errno, "disk flush");
  return Status::success();
}

}  // namespace platform
