#include "platform/linux/LinuxDeviceProperties.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "platform/linux/UniqueFd.h"

namespace platform {

namespace {

// The firmware's Secure Boot state stands in for the signing fuse: a device
// that boots only signed code accepts only production-signed content.
constexpr const char* kSecureBootVariable = "SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";
// The variable file is a 4-byte attribute word followed by the value.
constexpr std::size_t kAttributeBytes = 4;
constexpr std::size_t kMaxVariableBytes = 64;

}  // namespace

LinuxDeviceProperties::LinuxDeviceProperties(DevicePropertyPaths paths)
    : paths_(std::move(paths)) {}

std::optional<Value> LinuxDeviceProperties::copyAnswer(const std::string& question) {
  if (question == "SigningFuse") return signingFuse();
  if (question == "DiskUsage") return diskUsage();
  return std::nullopt;
}

std::optional<Value> LinuxDeviceProperties::signingFuse() {
  std::string path = paths_.efiVariables + "/" + kSecureBootVariable;
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!fd.valid()) return std::nullopt;
  std::uint8_t bytes[kMaxVariableBytes];
  std::size_t filled = 0;
  while (filled < sizeof bytes) {
    ssize_t n = ::read(fd.get(), bytes + filled, sizeof bytes - filled);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return std::nullopt;
    if (n == 0) break;
    filled += static_cast<std::size_t>(n);
  }
  if (filled != kAttributeBytes + 1) return std::nullopt;
  // Any other value is not an answer, and no answer means production only.
  switch (bytes[kAttributeBytes]) {
    case 0:
      return Value(false);
    case 1:
      return Value(true);
    default:
      return std::nullopt;
  }
}

std::optional<Value> LinuxDeviceProperties::diskUsage() {
  struct statvfs fs {};
  if (::statvfs(paths_.dataVolume.c_str(), &fs) != 0) return std::nullopt;
  const std::uint64_t unit = fs.f_frsize ? fs.f_frsize : fs.f_bsize;
  Dictionary usage;
  usage.set("TotalDataAvailable", Value(static_cast<std::uint64_t>(fs.f_bavail) * unit));
  usage.set("TotalDataCapacity", Value(static_cast<std::uint64_t>(fs.f_blocks) * unit));
  return Value(std::move(usage));
}

}  // namespace platform
