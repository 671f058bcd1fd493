#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/InputStream.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

namespace {

class FileInputStream : public InputStream {
 public:
  FileInputStream(UniqueFd fd, std::string path) : fd_(std::move(fd)), path_(std::move(path)) {}

  Result<Data> readAll(std::size_t maxBytes) override {
    struct stat st {};
    if (::fstat(fd_.get(), &st) != 0) return posixError(errno, path_);
    if (static_cast<std::uint64_t>(st.st_size) > maxBytes) return posixError(EFBIG, path_);
    Data bytes;
    bytes.reserve(static_cast<std::size_t>(st.st_size));
    std::uint8_t buffer[64 * 1024];
    for (;;) {
      ssize_t n = ::read(fd_.get(), buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return posixError(errno, path_);
      if (n == 0) break;
      // The file may grow while it is read; the bound still holds.
      if (bytes.size() + static_cast<std::size_t>(n) > maxBytes) return posixError(EFBIG, path_);
      bytes.insert(bytes.end(), buffer, buffer + n);
    }
    return bytes;
  }

 private:
  UniqueFd fd_;
  std::string path_;
};

}  // namespace

std::unique_ptr<InputStream> inputStreamWithFileAtPath(const std::string& path) {
  // Non-blocking so that opening a FIFO cannot hang the caller.
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd.valid()) return nullptr;
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  int flags = ::fcntl(fd.get(), F_GETFL);
  if (flags >= 0) (void)::fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK);
  return std::make_unique<FileInputStream>(std::move(fd), path);
}

}  // namespace platform
