// How fast the volume layer moves a partition, beside dd copying the same
// number of bytes on the same loop disk with the same direct I/O, in the
// same run. A timed tool, not a test; needs root and loop devices:
//   build/bin/storage_move [MIB] [ROUNDS]   (default 256 MiB, 4 rounds)
// The disk is an image in $TMPDIR (default /tmp): System 16 MiB, Data
// 2 x MIB, Update MIB, then MIB free. Each round dd copies Update into the
// free space, then a table write shrinks or grows Data by MIB, which moves
// Update by as much. The loop device reads and writes the image with direct
// I/O, like a disk with no cache in front of it. The image is removed and its loop device detached
// (by the name losetup printed) at the end.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "platform/GptDisk.h"
#include "platform/linux/LinuxVolumeLayer.h"
#include "platform/linux/UniqueFd.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kMiB = 1 << 20;

std::string output(const std::string& command, int* status = nullptr) {
  std::string out;
  std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) out.append(buffer, n);
  const int rc = ::pclose(pipe);
  if (status) *status = rc;
  return out;
}

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string one, five, fifteen;
  in >> one >> five >> fifteen;
  return one + " " + five + " " + fifteen;
}

double seconds(Clock::time_point since) {
  return std::chrono::duration<double>(Clock::now() - since).count();
}

[[noreturn]] void fail(const std::string& why) {
  std::fprintf(stderr, "storage_move: %s\n", why.c_str());
  std::exit(1);
}

// Writes the table and fills Update with bytes that do not compress away.
void makeImage(const std::string& path, std::uint64_t blocks, std::uint64_t mib,
               std::uint64_t* updateFirst) {
  platform::gpt::DiskLayout layout;
  layout.blockCount = blocks;
  const std::uint64_t size = mib * kMiB / kBlock;
  layout.partitions = {{"System", 16 * kMiB / kBlock}, {"Data", 2 * size}, {"Update", size}};
  auto image = platform::gpt::buildDisk(layout);
  if (!image) fail(image.error().description);
  platform::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  // Allocated up front, so neither copy pays for growing the image file.
  if (::posix_fallocate(fd.get(), 0, off_t(blocks * kBlock)) != 0) fail("cannot allocate " + path);
  for (const auto& w : image->writes) {
    if (::pwrite(fd.get(), w.bytes.data(), w.bytes.size(), off_t(w.offset)) !=
        ssize_t(w.bytes.size()))
      fail("cannot write " + path);
  }
  *updateFirst = image->partitions[2].firstLba;
  std::vector<std::uint64_t> chunk(kMiB / 8);
  std::uint64_t x = 0x9E3779B97F4A7C15ull;
  for (std::uint64_t m = 0; m < mib; ++m) {
    for (auto& word : chunk) word = x ^= x << 13, x ^= x >> 7, x ^= x << 17;
    if (::pwrite(fd.get(), chunk.data(), kMiB, off_t(*updateFirst * kBlock + m * kMiB)) !=
        ssize_t(kMiB))
      fail("cannot fill Update");
  }
  if (::fsync(fd.get()) != 0) fail("cannot sync " + path);
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t mib = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 256;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 4;
  if (mib < 4 || mib % 4 != 0 || rounds < 1)
    fail("usage: storage_move [MIB (a multiple of 4)] [ROUNDS]");
  if (::geteuid() != 0) fail("needs root (a loop device)");

  const char* tmp = std::getenv("TMPDIR");
  std::string path = std::string(tmp ? tmp : "/tmp") + "/vexd-storage-move-XXXXXX";
  platform::UniqueFd made(::mkstemp(path.data()));
  if (!made.valid()) fail("cannot create an image in " + path);
  const std::uint64_t blocks = (16 + 4 * mib) * kMiB / kBlock + 512;
  std::uint64_t updateFirst = 0;
  makeImage(path, blocks, mib, &updateFirst);
  int status = 0;
  // Direct I/O to the image as well, so that neither copy is served from the
  // page cache holding what the other one just wrote: both go to the disk.
  const std::string attached =
      output("losetup --find --show --sector-size 4096 --direct-io=on " + path, &status);
  const std::string loop = attached.substr(0, attached.find('\n'));
  if (status != 0 || loop.rfind("/dev/loop", 0) != 0) {
    ::unlink(path.c_str());
    fail("cannot attach " + path + ": " + attached);
  }

  platform::LinuxVolumeLayer layer;
  if (auto mapped = layer.mapPartitions(loop); !mapped)
    std::fprintf(stderr, "%s\n", mapped.error().description.c_str());
  const std::uint64_t size = mib * kMiB / kBlock;
  const std::uint64_t freeFirst = updateFirst + size;  // past Update's furthest place
  std::printf("disk %s (image %s), %llu MiB moved per round, 4 MiB direct I/O both ways\n",
              loop.c_str(), path.c_str(), static_cast<unsigned long long>(mib));
  std::printf("%-6s %12s %12s %8s   %s\n", "round", "move MiB/s", "dd MiB/s", "ratio",
              "load average");
  std::vector<double> ratios;
  bool shrunk = false;
  for (int r = 1; r <= rounds; ++r) {
    auto disk = layer.openDisk(loop, platform::VolumeLayer::kReadWrite);
    if (!disk) fail(disk.error().description);
    std::vector<std::uint8_t> table(2 * kBlock);
    if (!(*disk)->pread(table, kBlock)) fail("cannot read the table");
    const std::uint64_t updateNow =
        platform::gpt::load64(&table[kBlock + 256 + platform::gpt::kFirstLba]);

    const std::string load = loadAverage();
    const std::string dd =
        "dd if=" + loop + " of=" + loop + " bs=4M count=" + std::to_string(mib / 4) +
        " skip=" + std::to_string(updateNow * kBlock) +
        " seek=" + std::to_string(freeFirst * kBlock) +
        " iflag=direct,skip_bytes oflag=direct,seek_bytes conv=notrunc,fsync status=none";
    auto start = Clock::now();
    const std::string said = output(dd, &status);
    const double ddSeconds = seconds(start);
    if (status != 0) fail("dd failed: " + said);

    // Data gives up, or takes back, as many blocks as Update has.
    const std::int64_t by = shrunk ? std::int64_t(size) : -std::int64_t(size);
    std::uint8_t* entries = &table[kBlock];
    for (auto [at, delta] : {std::pair{128 + platform::gpt::kLastLba, by},
                             std::pair{256 + platform::gpt::kFirstLba, by},
                             std::pair{256 + platform::gpt::kLastLba, by}}) {
      platform::gpt::store64(entries + at, platform::gpt::load64(entries + at) + delta);
    }
    start = Clock::now();
    auto written = (*disk)->pwrite(table, kBlock);
    const double moveSeconds = seconds(start);
    if (!written) fail("the move failed: " + written.error().description);
    shrunk = !shrunk;

    const double bytes = double(mib * kMiB);
    ratios.push_back(ddSeconds / moveSeconds);
    std::printf("%-6d %12.0f %12.0f %8.2f   %s\n", r, bytes / kMiB / moveSeconds,
                bytes / kMiB / ddSeconds, ratios.back(), load.c_str());
  }
  std::sort(ratios.begin(), ratios.end());
  std::printf("median ratio (move speed / dd speed): %.2f; load average now %s\n",
              ratios[ratios.size() / 2], loadAverage().c_str());

  output("partx -d " + loop);
  output("losetup -d " + loop);
  ::unlink(path.c_str());
  return 0;
}
