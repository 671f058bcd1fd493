#include "platform/linux/LinuxDiskDevice.h"

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/GptDisk.h"
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

Result<std::size_t> LinuxDiskDevice::pwrite(std::span<const std::uint8_t> bytes,
                                            std::uint64_t offset) {
  auto g = geometry();
  if (!g) return g.error();
  const auto [blockSize, count] = *g;
  const std::uint64_t tableStart = blockSize, tableEnd = 3ull * blockSize;
  if (offset >= tableEnd || offset + bytes.size() <= tableStart) {
    auto status = writeAll(bytes, offset);
    if (!status) return status.error();
    return bytes.size();
  }
  return writeTable(bytes, offset, blockSize, count);
}

void LinuxDiskDevice::restore(const std::vector<KernelPartition>& removed) {
  for (const auto& p : removed) (void)addPartition(fd_.get(), p);
}

Status LinuxDiskDevice::applyAfterWrite(const ReconcilePlan& plan) {
  for (const auto& p : plan.resize) {
    if (auto s = resizePartition(fd_.get(), p); !s) return s;
  }
  for (const auto& p : plan.add) {
    if (auto s = addPartition(fd_.get(), p); !s) return s;
  }
  return Status::success();
}

Result<std::size_t> LinuxDiskDevice::writeTable(std::span<const std::uint8_t> bytes,
                                                std::uint64_t offset, std::uint32_t blockSize,
                                                std::uint64_t blockCount) {
  // The table as it will be once this write is on disk.
  Data table(2 * std::size_t(blockSize), 0);
  auto got = pread(table, blockSize);
  if (!got) return got.error();
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const std::uint64_t at = offset + i;
    if (at >= blockSize && at < 3ull * blockSize) table[at - blockSize] = bytes[i];
  }
  auto sealed = gpt::sealTable(table, blockSize, blockCount);
  if (!sealed) return posixError(EINVAL, "partition table: " + sealed.error().description);

  // An image file has no kernel partitions to keep in line.
  auto isBlock = isRawDisk();
  if (!isBlock) return isBlock.error();
  auto current = kernelPartitions(fd_.get());
  if (!current) return current.error();
  const ReconcilePlan plan =
      *isBlock ? planReconcile(*current, partitionsOfTable(sealed->primary, blockSize))
               : ReconcilePlan{};

  // Mappings that must go are taken away first: one still in use refuses
  // (EBUSY), and then neither the disk nor the kernel has changed.
  std::vector<KernelPartition> removed;
  for (const auto& p : plan.remove) {
    if (auto s = removePartition(fd_.get(), p); !s) {
      restore(removed);
      return s.error();
    }
    removed.push_back(p);
  }

  Status written = writeAll(bytes, offset);
  if (written) written = writeAll(sealed->primary, blockSize);
  for (const auto& w : sealed->backup) {
    if (written) written = writeAll(w.bytes, w.offset);
  }
  if (written && ::fsync(fd_.get()) != 0) written = posixError(errno, "disk");
  if (!written) {
    restore(removed);
    return written.error();
  }
  if (auto s = applyAfterWrite(plan); !s) return s.error();
  return bytes.size();
}

Status LinuxDiskDevice::reconcile() {
  auto g = geometry();
  if (!g) return g.error();
  Data table(2 * std::size_t(g->first), 0);
  auto got = pread(table, g->first);
  if (!got) return got.error();
  auto current = kernelPartitions(fd_.get());
  if (!current) return current.error();
  const ReconcilePlan plan = planReconcile(*current, partitionsOfTable(table, g->first));
  for (const auto& p : plan.remove) {
    if (auto s = removePartition(fd_.get(), p); !s) return s;
  }
  return applyAfterWrite(plan);
}

}  // namespace platform
