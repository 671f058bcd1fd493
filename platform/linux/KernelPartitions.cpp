#include "platform/linux/KernelPartitions.h"

#include <dirent.h>
#include <linux/blkpg.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "platform/GptDisk.h"
#include "platform/linux/LinuxFileSystem.h"

namespace platform {
namespace {

constexpr std::uint64_t kSysfsSector = 512;

bool readNumber(const std::string& path, std::uint64_t& value) {
  std::ifstream in(path);
  return static_cast<bool>(in >> value);
}

Status blkpg(int diskFd, int op, const KernelPartition& p) {
  blkpg_partition part{};
  part.start = static_cast<long long>(p.start);
  part.length = static_cast<long long>(p.length);
  part.pno = p.number;
  blkpg_ioctl_arg arg{};
  arg.op = op;
  arg.datalen = sizeof part;
  arg.data = &part;
  if (::ioctl(diskFd, BLKPG, &arg) != 0) {
    const int err = errno;
    return posixError(err, "partition " + std::to_string(p.number));
  }
  return Status::success();
}

}  // namespace

std::vector<KernelPartition> partitionsOfTable(std::span<const std::uint8_t> blocks1and2,
                                               std::uint32_t blockSize) {
  std::vector<KernelPartition> out;
  for (const auto& e : gpt::usedEntries(blocks1and2, blockSize)) {
    out.push_back({static_cast<int>(e.index + 1), e.firstLba * blockSize,
                   (e.lastLba - e.firstLba + 1) * blockSize});
  }
  return out;
}

ReconcilePlan planReconcile(const std::vector<KernelPartition>& current,
                            const std::vector<KernelPartition>& wanted,
                            const std::vector<ByteRange>& copied) {
  ReconcilePlan plan;
  auto find = [](const std::vector<KernelPartition>& list, int number) {
    return std::find_if(list.begin(), list.end(),
                        [number](const KernelPartition& p) { return p.number == number; });
  };
  auto covers = [&copied](std::uint64_t start, std::uint64_t length) {
    return std::any_of(copied.begin(), copied.end(), [&](const ByteRange& r) {
      return start < r.end && r.start < start + length;
    });
  };
  for (const auto& have : current) {
    auto want = find(wanted, have.number);
    const bool stays = want != wanted.end() && want->start == have.start;
    const std::uint64_t keptLength = stays ? std::min(have.length, want->length) : have.length;
    if (!stays || covers(have.start, keptLength)) plan.remove.push_back(have);
  }
  for (const auto& want : wanted) {
    auto have = find(current, want.number);
    const bool removed = find(plan.remove, want.number) != plan.remove.end();
    if (have == current.end() || removed) {
      plan.add.push_back(want);
    } else if (have->length > want.length) {
      plan.shrink.push_back(want);
    } else if (have->length < want.length) {
      plan.grow.push_back(want);
    }
  }
  return plan;
}

Result<std::vector<KernelPartition>> kernelPartitions(int diskFd) {
  std::vector<KernelPartition> out;
  struct stat st {};
  if (::fstat(diskFd, &st) != 0) return posixError(errno, "disk");
  if (!S_ISBLK(st.st_mode)) return out;
  const std::string base = "/sys/dev/block/" + std::to_string(major(st.st_rdev)) + ":" +
                           std::to_string(minor(st.st_rdev));
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(base.c_str()), &::closedir);
  if (!dir) return posixError(errno, base);
  std::vector<std::string> names;
  while (dirent* d = ::readdir(dir.get())) names.emplace_back(d->d_name);
  for (const auto& name : names) {
    if (name == "." || name == "..") continue;
    std::uint64_t number = 0, start = 0, size = 0;
    const std::string part = base + "/" + name + "/";
    if (!readNumber(part + "partition", number)) continue;
    if (!readNumber(part + "start", start) || !readNumber(part + "size", size)) {
      return posixError(EIO, part);
    }
    out.push_back({static_cast<int>(number), start * kSysfsSector, size * kSysfsSector});
  }
  std::sort(out.begin(), out.end(),
            [](const KernelPartition& a, const KernelPartition& b) { return a.number < b.number; });
  return out;
}

Status addPartition(int diskFd, const KernelPartition& p) {
  return blkpg(diskFd, BLKPG_ADD_PARTITION, p);
}
Status removePartition(int diskFd, const KernelPartition& p) {
  return blkpg(diskFd, BLKPG_DEL_PARTITION, p);
}
Status resizePartition(int diskFd, const KernelPartition& p) {
  return blkpg(diskFd, BLKPG_RESIZE_PARTITION, p);
}

}  // namespace platform
