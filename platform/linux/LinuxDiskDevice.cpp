#include "platform/linux/LinuxDiskDevice.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/TableCommit.h"
#include "platform/linux/DirectBlockIo.h"
#include "platform/linux/KernelPartitionMapper.h"
#include "platform/linux/LinuxFileSystem.h"

namespace platform {

Result<bool> LinuxDiskDevice::isRawDisk() {
  struct stat st {};
  if (::fstat(fd_.get(), &st) != 0) return posixError(errno, "disk");
  // Linux has no raw character disk nodes: the whole-disk block device is it.
  return S_ISBLK(st.st_mode);
}

Result<std::uint32_t> LinuxDiskDevice::blockSize() {
  int size = 0;
  if (::ioctl(fd_.get(), BLKSSZGET, &size) != 0) return posixError(errno, "BLKSSZGET");
  return static_cast<std::uint32_t>(size);
}

Result<std::uint64_t> LinuxDiskDevice::blockCount() {
  auto size = blockSize();
  if (!size) return size.error();
  std::uint64_t bytes = 0;
  if (::ioctl(fd_.get(), BLKGETSIZE64, &bytes) != 0) return posixError(errno, "BLKGETSIZE64");
  return *size ? bytes / *size : 0;
}

Result<std::size_t> LinuxDiskDevice::pread(std::span<std::uint8_t> buffer, std::uint64_t offset) {
  std::size_t done = 0;
  while (done < buffer.size()) {
    ssize_t n = ::pread(fd_.get(), buffer.data() + done, buffer.size() - done,
                        static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return posixError(errno, "disk");
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  return done;
}

Status LinuxDiskDevice::writeAll(std::span<const std::uint8_t> bytes, std::uint64_t offset) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::pwrite(fd_.get(), bytes.data() + done, bytes.size() - done,
                         static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return posixError(n < 0 ? errno : EIO, "disk");
    done += static_cast<std::size_t>(n);
  }
  return Status::success();
}

Result<std::pair<std::uint32_t, std::uint64_t>> LinuxDiskDevice::geometry() {
  struct stat st {};
  if (::fstat(fd_.get(), &st) != 0) return posixError(errno, "disk");
  if (S_ISREG(st.st_mode)) {
    return std::pair<std::uint32_t, std::uint64_t>(gpt::kBlockSize,
                                                   std::uint64_t(st.st_size) / gpt::kBlockSize);
  }
  auto size = blockSize();
  if (!size) return size.error();
  auto count = blockCount();
  if (!count) return count.error();
  return std::pair<std::uint32_t, std::uint64_t>(*size, *count);
}

Status LinuxDiskDevice::withCommit(const std::function<Status(TableCommit&)>& work) {
  auto g = geometry();
  if (!g) return g.error();
  auto isBlock = isRawDisk();
  if (!isBlock) return isBlock.error();
  auto io = DirectBlockIo::open(path_);
  if (!io) return io.error();
  std::unique_ptr<BlockIo> blocks = std::move(*io);
  if (wrapper_) blocks = wrapper_(std::move(blocks));
  // An image file has no kernel partitions to keep in line.
  KernelPartitionMapper kernel(fd_.get(), g->first);
  TableCommit commit(*blocks, *isBlock ? &kernel : nullptr, g->first, g->second);
  return work(commit);
}

Result<std::size_t> LinuxDiskDevice::pwrite(std::span<const std::uint8_t> bytes,
                                            std::uint64_t offset) {
  auto g = geometry();
  if (!g) return g.error();
  const std::uint64_t tableStart = g->first, tableEnd = 3ull * g->first;
  if (offset >= tableEnd || offset + bytes.size() <= tableStart) {
    auto status = writeAll(bytes, offset);
    if (!status) return status.error();
    return bytes.size();
  }
  auto written = withCommit([&](TableCommit& commit) { return commit.write(bytes, offset); });
  if (!written) return written.error();
  return bytes.size();
}

Status LinuxDiskDevice::mapPartitions() {
  return withCommit([](TableCommit& commit) { return commit.map(); });
}

}  // namespace platform
