// qlx-mkdisk: writes the data disk's partition table ("System", "Data",
// "Update") onto an image file or a block device with 4096-byte blocks, the
// way the volume manager presents it. Used by the tests and the device
// sandbox to make a disk the storage requests can work on.
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "platform/GptDisk.h"
#include "platform/linux/UniqueFd.h"

namespace {

constexpr const char* kUsage =
    "usage: qlx-mkdisk [--size BYTES] [--system BYTES] [--data BYTES] [--update BYTES]\n"
    "                  [--print] TARGET\n"
    "\n"
    "Writes a protective MBR with the volume manager's signature, a GPT with the\n"
    "partitions \"System\", \"Data\" and \"Update\" (in that order, back to back) and its\n"
    "backup onto TARGET, with 4096-byte blocks.\n"
    "\n"
    "  TARGET        an image file (created or resized when --size is given) or a\n"
    "                block device whose logical block size is 4096\n"
    "  --size B      length of the image file (not allowed for a block device)\n"
    "  --system B    size of \"System\" (default 64M); 0 leaves it out\n"
    "  --data B      size of \"Data\" (default: all that the others leave)\n"
    "  --update B    size of \"Update\" (default 64M); 0 leaves it out\n"
    "  --print       print one line per partition: NUMBER NAME FIRST-LBA LAST-LBA\n"
    "                (NUMBER is the kernel's partition number, the GPT index + 1)\n"
    "\n"
    "Sizes are bytes with an optional K, M or G suffix (powers of 1024) and are\n"
    "rounded up to whole blocks.\n";

std::optional<std::uint64_t> parseSize(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::uint64_t multiplier = 1;
  switch (text.back()) {
    case 'K':
    case 'k':
      multiplier = 1ull << 10;
      break;
    case 'M':
    case 'm':
      multiplier = 1ull << 20;
      break;
    case 'G':
    case 'g':
      multiplier = 1ull << 30;
      break;
    default:
      break;
  }
  if (multiplier != 1) text.remove_suffix(1);
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    if (value > (UINT64_MAX - 9) / 10) return std::nullopt;
    value = value * 10 + std::uint64_t(c - '0');
  }
  if (value > UINT64_MAX / multiplier) return std::nullopt;
  return value * multiplier;
}

std::uint64_t toBlocks(std::uint64_t bytes) {
  return bytes / platform::gpt::kBlockSize + (bytes % platform::gpt::kBlockSize ? 1 : 0);
}

int fail(const std::string& message) {
  std::fprintf(stderr, "qlx-mkdisk: %s\n", message.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::optional<std::uint64_t> size, system = 64ull << 20, data, update = 64ull << 20;
  bool print = false;
  std::string target;
  for (int i = 1; i < argc; ++i) {
    std::string_view arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (arg == "--print") {
      print = true;
      continue;
    }
    std::optional<std::uint64_t>* slot = arg == "--size"     ? &size
                                         : arg == "--system" ? &system
                                         : arg == "--data"   ? &data
                                         : arg == "--update" ? &update
                                                             : nullptr;
    if (slot) {
      if (i + 1 >= argc) return fail(std::string(arg) + " needs a size");
      *slot = parseSize(argv[++i]);
      if (!*slot) return fail(std::string("not a size: ") + argv[i]);
      continue;
    }
    if (!arg.empty() && arg[0] == '-') {
      std::fputs(kUsage, stderr);
      return 2;
    }
    if (!target.empty()) return fail("only one target");
    target = std::string(arg);
  }
  if (target.empty()) {
    std::fputs(kUsage, stderr);
    return 2;
  }

  platform::UniqueFd fd(::open(target.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  if (!fd.valid()) return fail(target + ": " + std::strerror(errno));
  struct stat st {};
  if (::fstat(fd.get(), &st) != 0) return fail(target + ": " + std::strerror(errno));
  std::uint64_t bytes = 0;
  if (S_ISBLK(st.st_mode)) {
    if (size) return fail("--size cannot be given for a block device");
    int sectorSize = 0;
    if (::ioctl(fd.get(), BLKSSZGET, &sectorSize) != 0 ||
        ::ioctl(fd.get(), BLKGETSIZE64, &bytes) != 0) {
      return fail(target + ": " + std::strerror(errno));
    }
    if (sectorSize != int(platform::gpt::kBlockSize)) {
      return fail(target + " has " + std::to_string(sectorSize) +
                  "-byte blocks; 4096 are needed (losetup --sector-size 4096)");
    }
  } else if (S_ISREG(st.st_mode)) {
    if (size && ::ftruncate(fd.get(), off_t(*size)) != 0) {
      return fail(target + ": " + std::strerror(errno));
    }
    bytes = size ? *size : std::uint64_t(st.st_size);
  } else {
    return fail(target + " is neither an image file nor a block device");
  }

  platform::gpt::DiskLayout layout;
  layout.blockCount = bytes / platform::gpt::kBlockSize;
  if (*system) layout.partitions.push_back({"System", toBlocks(*system)});
  if (!data || *data) layout.partitions.push_back({"Data", data ? toBlocks(*data) : 0});
  if (*update) layout.partitions.push_back({"Update", toBlocks(*update)});
  auto image = platform::gpt::buildDisk(layout);
  if (!image) return fail(target + ": " + image.error().description);

  for (const auto& w : image->writes) {
    ssize_t n = ::pwrite(fd.get(), w.bytes.data(), w.bytes.size(), off_t(w.offset));
    if (n != ssize_t(w.bytes.size())) {
      return fail(target + ": write failed: " + std::strerror(n < 0 ? errno : EIO));
    }
  }
  if (::fsync(fd.get()) != 0) return fail(target + ": " + std::strerror(errno));
  if (print) {
    for (std::size_t i = 0; i < image->partitions.size(); ++i) {
      const auto& p = image->partitions[i];
      std::printf("%zu %s %llu %llu\n", i + 1, p.name.c_str(),
                  static_cast<unsigned long long>(p.firstLba),
                  static_cast<unsigned long long>(p.lastLba));
    }
  }
  return 0;
}
