#include "tests/storage/LoopDisk.h"

#include <fcntl.h>
#include <linux/btrfs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <map>

#include "platform/GptDisk.h"
#include "platform/Platform.h"
#include "platform/linux/UniqueFd.h"

namespace storage_loop {
namespace {

std::string readText(const std::string& path) {
  std::ifstream in(path);
  std::string s;
  std::getline(in, s);
  return s;
}

}  // namespace

Ran run(const std::string& command) {
  Ran r{-1, ""};
  std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return r;
  std::array<char, 4096> chunk;
  while (std::size_t n = std::fread(chunk.data(), 1, chunk.size(), pipe))
    r.output.append(chunk.data(), n);
  int status = ::pclose(pipe);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

std::string firstLine(std::string text) { return text.substr(0, text.find('\n')); }

std::optional<platform::Value> StatvfsDiskUsage::copyAnswer(const std::string& question) {
  struct statvfs st {};
  if (question != "DiskUsage" || ::statvfs(mountPoint.c_str(), &st) != 0) return std::nullopt;
  return platform::Value(platform::Dictionary{
      {"TotalDataAvailable", static_cast<std::int64_t>(st.f_bavail * st.f_frsize)},
      {"TotalDataCapacity", static_cast<std::int64_t>(st.f_blocks * st.f_frsize)}});
}

void LoopDisk::SetUp() {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root (loop devices, mounts)";
  if (::access("/dev/loop-control", F_OK) != 0) GTEST_SKIP() << "no loop devices here";
  if (run("grep -qw btrfs /proc/filesystems").status != 0)
    GTEST_SKIP() << "no btrfs in this kernel";
  for (const char* tool : {"losetup", "mkfs.btrfs", "btrfs", "sgdisk", "sfdisk", "sha256sum"}) {
    if (run(std::string("command -v ") + tool).status != 0) GTEST_SKIP() << "missing tool " << tool;
  }
  // Our mounts stay in a namespace of our own and end with this process.
  ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
  ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
  char dir[] = "/tmp/vexd-storage-XXXXXX";
  ASSERT_NE(::mkdtemp(dir), nullptr);
  folder = dir;
  ASSERT_EQ(::mkdir((folder + "/dev").c_str(), 0700), 0);
}

void LoopDisk::TearDown() {
  for (auto it = mounted.rbegin(); it != mounted.rend(); ++it) ::umount2(it->c_str(), MNT_DETACH);
  if (!loop.empty()) run("losetup -d " + loop);
  if (!folder.empty()) run("rm -rf " + folder);
  platform::shared().volumes = nullptr;
  platform::shared().deviceProperties = nullptr;
}

void LoopDisk::makeDisk(const std::string& sizes) {
  const std::string image = folder + "/disk.img";
  Ran made = run(std::string(VEXD_MKDISK) + " --size 1536M " + sizes + " " + image);
  ASSERT_EQ(made.status, 0) << made.output;
  Ran attached = run("losetup --find --show --sector-size 4096 " + image);
  ASSERT_EQ(attached.status, 0) << attached.output;
  loop = firstLine(attached.output);
  loopName = loop.substr(loop.rfind('/') + 1);
  std::map<std::string, std::string> paths{{"/dev/rdisk0s1", loop}};
  for (int k = 1; k <= 3; ++k) paths["/dev/" + partName(k)] = folder + "/dev/" + partName(k);
  layer = std::make_unique<platform::LinuxVolumeLayer>(paths);
  auto mapped = layer->mapPartitions("/dev/rdisk0s1");
  ASSERT_TRUE(mapped.ok()) << mapped.error().description;
  usage.mountPoint = folder + "/data";
  platform::shared().volumes = layer.get();
  platform::shared().deviceProperties = &usage;
}

std::string LoopDisk::node(int k) {
  const std::string sys = "/sys/block/" + loopName + "/" + partName(k) + "/dev";
  const std::string numbers = readText(sys);
  unsigned major = 0, minor = 0;
  EXPECT_EQ(std::sscanf(numbers.c_str(), "%u:%u", &major, &minor), 2) << sys;
  const std::string path = folder + "/dev/" + partName(k);
  ::unlink(path.c_str());
  EXPECT_EQ(::mknod(path.c_str(), S_IFBLK | 0600, makedev(major, minor)), 0);
  return path;
}

void LoopDisk::formatAndMount(int k, const std::string& where) {
  const std::string dev = node(k);
  Ran mk = run("mkfs.btrfs -q -f " + dev);
  ASSERT_EQ(mk.status, 0) << mk.output;
  const std::string at = folder + "/" + where;
  ASSERT_EQ(::mkdir(at.c_str(), 0755), 0);
  ASSERT_EQ(::mount(dev.c_str(), at.c_str(), "btrfs", 0, nullptr), 0) << at;
  mounted.push_back(at);
}

std::vector<std::uint8_t> LoopDisk::readDisk(std::uint64_t offset, std::size_t length) {
  platform::UniqueFd fd(::open(loop.c_str(), O_RDONLY | O_CLOEXEC));
  std::vector<std::uint8_t> bytes(length);
  EXPECT_EQ(::pread(fd.get(), bytes.data(), length, off_t(offset)), ssize_t(length));
  return bytes;
}

void LoopDisk::writeDisk(const std::vector<std::uint8_t>& bytes, std::uint64_t offset) {
  platform::UniqueFd fd(::open(loop.c_str(), O_WRONLY | O_CLOEXEC));
  ASSERT_EQ(::pwrite(fd.get(), bytes.data(), bytes.size(), off_t(offset)), ssize_t(bytes.size()));
  ASSERT_EQ(::fsync(fd.get()), 0);
}

std::vector<std::uint8_t> LoopDisk::tableBlocks() { return readDisk(kBlock, 2 * kBlock); }

Extent LoopDisk::entry(int i) {
  const auto block = readDisk(2 * kBlock, kBlock);
  const std::uint8_t* e = &block[i * 128];
  return {platform::gpt::load64(e + platform::gpt::kFirstLba),
          platform::gpt::load64(e + platform::gpt::kLastLba)};
}

std::pair<std::uint64_t, std::uint64_t> LoopDisk::kernel(int k) {
  const std::string base = "/sys/block/" + loopName + "/" + partName(k) + "/";
  return {std::stoull(readText(base + "start")) * 512, std::stoull(readText(base + "size")) * 512};
}

std::uint64_t LoopDisk::fileSystemSize(const std::string& where) {
  platform::UniqueFd fd(::open((folder + "/" + where).c_str(), O_RDONLY | O_DIRECTORY));
  btrfs_ioctl_dev_info_args info{};
  info.devid = 1;
  EXPECT_EQ(::ioctl(fd.get(), BTRFS_IOC_DEV_INFO, &info), 0);
  return info.total_bytes;
}

std::string LoopDisk::hashOfFile() {
  return firstLine(run("sha256sum " + folder + "/data/payload").output);
}

std::string LoopDisk::fillWithPattern(int k) {
  const std::string dev = node(k);
  Ran filled = run("dd if=/dev/urandom of=" + dev + " bs=1M status=none oflag=direct");
  EXPECT_NE(filled.output.find("No space left"), std::string::npos) << filled.output;
  return hashOfPartition(k);
}

std::string LoopDisk::hashOfPartition(int k) {
  Ran hashed = run("sha256sum < " + node(k));
  EXPECT_EQ(hashed.status, 0) << hashed.output;
  return firstLine(hashed.output);
}

void LoopDisk::expectTableValid() {
  Ran sfdisk = run("sfdisk --verify " + loop);
  EXPECT_EQ(sfdisk.status, 0) << sfdisk.output;
  EXPECT_NE(sfdisk.output.find("No errors detected"), std::string::npos) << sfdisk.output;
  Ran sgdisk = run("sgdisk -v " + loop);
  EXPECT_EQ(sgdisk.status, 0) << sgdisk.output;
  EXPECT_NE(sgdisk.output.find("No problems found"), std::string::npos) << sgdisk.output;
}

void LoopDisk::expectDiskAndFileSystemHealthy() {
  expectTableValid();
  Ran scrub = run("btrfs scrub start -B " + folder + "/data");
  EXPECT_EQ(scrub.status, 0) << scrub.output;
}

void LoopDisk::expectKernelFollowsTable(int partitions) {
  for (int i = 0; i < partitions; ++i) {
    Extent e = entry(i);
    EXPECT_EQ(kernel(i + 1), std::make_pair(e.first * kBlock, e.bytes())) << "partition " << i + 1;
  }
}

}  // namespace storage_loop
