// "shrinkDataPartition:" and "expandDataPartition:" on a real disk: a loop
// device with 4096-byte sectors carrying the volume manager's GPT, its Data
// partition formatted btrfs and mounted with a file of known hash. Runs in a
// private mount namespace; everything it attaches it detaches by name.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/btrfs.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/DeviceProperties.h"
#include "platform/GptDisk.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxVolumeLayer.h"
#include "platform/linux/UniqueFd.h"
#include "vexd_helper/QLXHMessageResponder.h"

namespace {

constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kMiB = 1 << 20;

struct Ran {
  int status;
  std::string output;
};

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

std::string readText(const std::string& path) {
  std::ifstream in(path);
  std::string s;
  std::getline(in, s);
  return s;
}

// "DiskUsage" of the mounted Data file system, as the device reports it.
class StatvfsDiskUsage : public platform::DeviceProperties {
 public:
  std::string mountPoint;
  std::optional<platform::Value> copyAnswer(const std::string& question) override {
    struct statvfs st {};
    if (question != "DiskUsage" || ::statvfs(mountPoint.c_str(), &st) != 0) return std::nullopt;
    return platform::Value(platform::Dictionary{
        {"TotalDataAvailable", static_cast<std::int64_t>(st.f_bavail * st.f_frsize)},
        {"TotalDataCapacity", static_cast<std::int64_t>(st.f_blocks * st.f_frsize)}});
  }
};

struct Extent {
  std::uint64_t first, last;  // blocks
  std::uint64_t bytes() const { return (last - first + 1) * kBlock; }
};

class LoopDisk : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root (loop devices, mounts)";
    if (::access("/dev/loop-control", F_OK) != 0) GTEST_SKIP() << "no loop devices here";
    if (run("grep -qw btrfs /proc/filesystems").status != 0)
      GTEST_SKIP() << "no btrfs in this kernel";
    for (const char* tool : {"losetup", "mkfs.btrfs", "btrfs", "sgdisk", "sfdisk", "sha256sum"}) {
      if (run(std::string("command -v ") + tool).status != 0)
        GTEST_SKIP() << "missing tool " << tool;
    }
    // Our mounts stay in a namespace of our own and end with this process.
    ASSERT_EQ(::unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    char dir[] = "/tmp/vexd-storage-XXXXXX";
    ASSERT_NE(::mkdtemp(dir), nullptr);
    folder = dir;
    ASSERT_EQ(::mkdir((folder + "/dev").c_str(), 0700), 0);
  }

  void TearDown() override {
    for (auto it = mounted.rbegin(); it != mounted.rend(); ++it) ::umount2(it->c_str(), MNT_DETACH);
    if (!loop.empty()) run("losetup -d " + loop);
    if (!folder.empty()) run("rm -rf " + folder);
    platform::shared().volumes = nullptr;
    platform::shared().deviceProperties = nullptr;
  }

  // Makes the disk, maps its partitions in the kernel and wires the services.
  void makeDisk(const std::string& sizes) {
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

  std::string partName(int k) const { return loopName + "p" + std::to_string(k); }

  // A private node for partition k, remade for its current device number.
  std::string node(int k) {
    const std::string sys = "/sys/block/" + loopName + "/" + partName(k) + "/dev";
    const std::string numbers = readText(sys);
    unsigned major = 0, minor = 0;
    EXPECT_EQ(std::sscanf(numbers.c_str(), "%u:%u", &major, &minor), 2) << sys;
    const std::string path = folder + "/dev/" + partName(k);
    ::unlink(path.c_str());
    EXPECT_EQ(::mknod(path.c_str(), S_IFBLK | 0600, makedev(major, minor)), 0);
    return path;
  }

  void formatAndMount(int k, const std::string& where) {
    const std::string dev = node(k);
    Ran mk = run("mkfs.btrfs -q -f " + dev);
    ASSERT_EQ(mk.status, 0) << mk.output;
    const std::string at = folder + "/" + where;
    ASSERT_EQ(::mkdir(at.c_str(), 0755), 0);
    ASSERT_EQ(::mount(dev.c_str(), at.c_str(), "btrfs", 0, nullptr), 0) << at;
    mounted.push_back(at);
  }

  Extent entry(int i) {
    platform::UniqueFd fd(::open(loop.c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<std::uint8_t> block(kBlock);
    EXPECT_EQ(::pread(fd.get(), block.data(), kBlock, 2 * kBlock), ssize_t(kBlock));
    const std::uint8_t* e = &block[i * 128];
    return {platform::gpt::load64(e + 32), platform::gpt::load64(e + 40)};
  }

  // The kernel's mapping of partition k, in bytes.
  std::pair<std::uint64_t, std::uint64_t> kernel(int k) {
    const std::string base = "/sys/block/" + loopName + "/" + partName(k) + "/";
    return {std::stoull(readText(base + "start")) * 512,
            std::stoull(readText(base + "size")) * 512};
  }

  std::uint64_t fileSystemSize(const std::string& where) {
    platform::UniqueFd fd(::open((folder + "/" + where).c_str(), O_RDONLY | O_DIRECTORY));
    btrfs_ioctl_dev_info_args info{};
    info.devid = 1;
    EXPECT_EQ(::ioctl(fd.get(), BTRFS_IOC_DEV_INFO, &info), 0);
    return info.total_bytes;
  }

  std::string hashOfFile() {
    return firstLine(run("sha256sum " + folder + "/data/payload").output);
  }

  void expectDiskAndFileSystemHealthy() {
    Ran sfdisk = run("sfdisk --verify " + loop);
    EXPECT_EQ(sfdisk.status, 0) << sfdisk.output;
    EXPECT_NE(sfdisk.output.find("No errors detected"), std::string::npos) << sfdisk.output;
    Ran sgdisk = run("sgdisk -v " + loop);
    EXPECT_EQ(sgdisk.status, 0) << sgdisk.output;
    EXPECT_NE(sgdisk.output.find("No problems found"), std::string::npos) << sgdisk.output;
    Ran scrub = run("btrfs scrub start -B " + folder + "/data");
    EXPECT_EQ(scrub.status, 0) << scrub.output;
  }

  void expectKernelFollowsTable(int partitions) {
    for (int i = 0; i < partitions; ++i) {
      Extent e = entry(i);
      EXPECT_EQ(kernel(i + 1), std::make_pair(e.first * kBlock, e.bytes()))
          << "partition " << i + 1;
    }
  }

  std::string folder, loop, loopName;
  std::vector<std::string> mounted;
  std::unique_ptr<platform::LinuxVolumeLayer> layer;
  StatvfsDiskUsage usage;
  QLXHMessageResponder responder;
};

TEST_F(LoopDisk, ShrinkAndExpandResizeTableKernelPartitionAndFileSystemTogether) {
  ASSERT_NO_FATAL_FAILURE(makeDisk("--system 64M --data 1024M --update 64M"));
  ASSERT_NO_FATAL_FAILURE(formatAndMount(2, "data"));
  ASSERT_EQ(
      run("dd if=/dev/urandom of=" + folder + "/data/payload bs=1M count=24 status=none && sync")
          .status,
      0);
  const std::string hash = hashOfFile();
  const std::uint64_t lastUsable = 1536 * kMiB / kBlock - 3;  // backup entries and header follow

  // Shrink: used space plus half the free space, rounded up to blocks.
  struct statvfs st {};
  ASSERT_EQ(::statvfs((folder + "/data").c_str(), &st), 0);
  const std::int64_t total = st.f_blocks * st.f_frsize, free = st.f_bavail * st.f_frsize;
  const std::uint64_t wanted = (std::uint64_t(total - free / 2) + kBlock - 1) / kBlock * kBlock;
  ASSERT_TRUE(responder.shrinkDataPartition(platform::Value()));
  EXPECT_EQ(entry(1).bytes(), wanted);
  EXPECT_EQ(fileSystemSize("data"), wanted);
  EXPECT_EQ(entry(2).first, entry(1).last + 1);  // the unused Update followed
  expectKernelFollowsTable(3);
  EXPECT_EQ(hashOfFile(), hash);
  expectDiskAndFileSystemHealthy();

  // Expand: everything System and Update leave; Update moves to the end.
  ASSERT_TRUE(responder.expandDataPartition(platform::Value()));
  EXPECT_EQ(entry(2).last, lastUsable);
  EXPECT_EQ(entry(1).last + 1, entry(2).first);
  EXPECT_EQ(entry(1).bytes(), (1536 - 64 - 64) * kMiB - 5 * kBlock);
  EXPECT_EQ(fileSystemSize("data"), entry(1).bytes());
  expectKernelFollowsTable(3);
  EXPECT_EQ(hashOfFile(), hash);
  expectDiskAndFileSystemHealthy();
}

TEST_F(LoopDisk, AnUpdatePartitionInUseCannotMoveSoTheExpandFailsUntouched) {
  ASSERT_NO_FATAL_FAILURE(makeDisk("--system 64M --data 512M --update 300M"));
  ASSERT_NO_FATAL_FAILURE(formatAndMount(2, "data"));
  ASSERT_NO_FATAL_FAILURE(formatAndMount(3, "update"));
  const Extent data = entry(1), update = entry(2);
  const auto kernelUpdate = kernel(3);
  const std::uint64_t size = fileSystemSize("data");

  ::testing::internal::CaptureStderr();
  const bool expanded = responder.expandDataPartition(platform::Value());
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_FALSE(expanded);
  EXPECT_NE(
      said.find("failed to write GPT header and table to /dev/rdisk0s1 (return -1). errno=16"),
      std::string::npos)
      << said;
  EXPECT_EQ(said.find("expanding Marl filesystem"), std::string::npos);
  EXPECT_EQ(fileSystemSize("data"), size);
  EXPECT_EQ(entry(1).last, data.last);  // nothing was written
  EXPECT_EQ(entry(2).first, update.first);
  EXPECT_EQ(kernel(3), kernelUpdate);
  expectKernelFollowsTable(3);
  expectDiskAndFileSystemHealthy();

  // Once Update is no longer mounted, its mapping follows the table.
  ASSERT_EQ(::umount2((folder + "/update").c_str(), 0), 0);
  mounted.pop_back();
  ASSERT_TRUE(responder.expandDataPartition(platform::Value()));
  EXPECT_GT(entry(2).first, update.first);
  EXPECT_EQ(fileSystemSize("data"), entry(1).bytes());
  expectKernelFollowsTable(3);
  expectDiskAndFileSystemHealthy();
}

}  // namespace
