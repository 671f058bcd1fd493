#include "platform/linux/LinuxVolumeLayer.h"

#include <blkid/blkid.h>
#include <fcntl.h>
#include <linux/btrfs.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/MountTable.h"

namespace platform {
namespace {

struct ProbeFree {
  void operator()(blkid_probe probe) const { blkid_free_probe(probe); }
};
using Probe = std::unique_ptr<std::remove_pointer_t<blkid_probe>, ProbeFree>;

bool isBlockDevice(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISBLK(st.st_mode);
}

}  // namespace

LinuxVolumeLayer::LinuxVolumeLayer(std::map<std::string, std::string> devicePaths,
                                   std::string mountInfoPath)
    : devicePaths_(std::move(devicePaths)), mountInfoPath_(std::move(mountInfoPath)) {}

std::string LinuxVolumeLayer::resolve(const std::string& path) const {
  auto it = devicePaths_.find(path);
  return it == devicePaths_.end() ? path : it->second;
}

Result<std::unique_ptr<DiskDevice>> LinuxVolumeLayer::openDisk(const std::string& path, int flags) {
  const std::string real = resolve(path);
  const int mode = (flags & kReadWrite) ? O_RDWR : O_RDONLY;
  UniqueFd fd(::open(real.c_str(), mode | O_CLOEXEC));
  if (!fd.valid()) return posixError(errno, real);
  // Linux has no shared-lock open flag; an advisory shared lock stands in.
  if ((flags & kSharedLock) && ::flock(fd.get(), LOCK_SH) != 0) return posixError(errno, real);
  return std::unique_ptr<DiskDevice>(new LinuxDiskDevice(std::move(fd), real, wrapper_));
}

Result<std::vector<MountRecord>> LinuxVolumeLayer::mountRecords(std::size_t maxRecords) {
  std::ifstream in(mountInfoPath_);
  if (!in) return posixError(errno ? errno : ENOENT, mountInfoPath_);
  std::stringstream text;
  text << in.rdbuf();
  std::vector<MountRecord> records;
  for (const auto& line : parseMountInfo(text.str())) {
    if (records.size() >= maxRecords) break;
    // Device-backed mounts only: the source is a block device node.
    if (line.source.empty() || line.source[0] != '/' || !isBlockDevice(line.source)) continue;
    const std::string type = line.fileSystemType == "btrfs" ? "marl" : line.fileSystemType;
    records.push_back({type, line.mountPoint, line.source});
  }
  return records;
}

Status LinuxVolumeLayer::resizeFileSystem(const std::string& mountPoint, std::uint64_t newSize) {
  UniqueFd fd(::open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd.valid()) return posixError(errno, mountPoint);
  btrfs_ioctl_vol_args args{};
  std::snprintf(args.name, sizeof args.name, "1:%llu", static_cast<unsigned long long>(newSize));
  if (::ioctl(fd.get(), BTRFS_IOC_RESIZE, &args) != 0) return posixError(errno, mountPoint);
  return Status::success();
}

void LinuxVolumeLayer::sync() { ::sync(); }

Result<std::optional<std::string>> LinuxVolumeLayer::partitionUUID(const std::string& devicePath) {
  const std::string real = resolve(devicePath);
  if (!isBlockDevice(real)) return posixError(ENODEV, real);
  Probe probe(blkid_new_probe_from_filename(real.c_str()));
  if (!probe) return posixError(errno ? errno : EIO, real);
  blkid_probe_enable_superblocks(probe.get(), 0);
  blkid_probe_enable_partitions(probe.get(), 1);
  blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_ENTRY_DETAILS);
  if (blkid_do_safeprobe(probe.get()) < 0) return std::optional<std::string>();
  const char* value = nullptr;
  std::size_t length = 0;
  if (blkid_probe_lookup_value(probe.get(), "PART_ENTRY_UUID", &value, &length) != 0 || !value) {
    return std::optional<std::string>();
  }
  return std::optional<std::string>(std::string(value));
}

Status LinuxVolumeLayer::mapPartitions(const std::string& path) {
  const std::string real = resolve(path);
  UniqueFd fd(::open(real.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return posixError(errno, real);
  return LinuxDiskDevice(std::move(fd), real, wrapper_).mapPartitions();
}

}  // namespace platform
