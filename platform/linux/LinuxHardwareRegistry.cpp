#include "platform/linux/LinuxHardwareRegistry.h"

#include <blkid/blkid.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <memory>
#include <type_traits>

#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/UniqueFd.h"
#include "platform/linux/Utf8.h"

namespace platform {

namespace {

// Attribute word of every variable written: non-volatile, boot-service and
// runtime access, stored little-endian before the value.
constexpr std::uint8_t kAttributes[] = {0x07, 0x00, 0x00, 0x00};

// efivarfs marks most variables immutable so that a stray rm cannot brick a
// machine; the service clears the flag on its own variables before a
// rewrite or removal. A file system without the flag has nothing to clear.
Status clearImmutable(const std::string& path) {
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid()) return errno == ENOENT ? Status() : Status(posixError(errno, path));
  int flags = 0;
  if (::ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0)
    return errno == ENOTTY || errno == EOPNOTSUPP ? Status() : Status(posixError(errno, path));
  if (!(flags & FS_IMMUTABLE_FL)) return {};
  flags &= ~FS_IMMUTABLE_FL;
  if (::ioctl(fd.get(), FS_IOC_SETFLAGS, &flags) != 0) return posixError(errno, path);
  return {};
}

bool isDirectory(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

LinuxHardwareRegistry::LinuxHardwareRegistry(std::string variableFolder, std::string deviceFolder)
    : variableFolder_(std::move(variableFolder)), deviceFolder_(std::move(deviceFolder)) {}

Result<RegistryNode> LinuxHardwareRegistry::lookUp(const std::string& path) {
  if (path != kOptionsNodePath) return posixError(ENOENT, path);
  // Machines booted without EFI, or without efivarfs mounted, have no node.
  if (!isDirectory(variableFolder_)) return posixError(ENOENT, variableFolder_);
  return RegistryNode{path};
}

Status LinuxHardwareRegistry::setProperty(const RegistryNode& node, const std::string& name,
                                          const Value& value) {
  if (node.path != kOptionsNodePath) return posixError(ENOENT, node.path);
  if (name == kDeleteProperty || name == kSyncNowProperty) {
    if (!value.string()) return posixError(EINVAL, name + " needs a variable name");
    return name == kDeleteProperty ? deleteVariable(*value.string())
                                   : syncVariable(*value.string());
  }
  if (const Data* d = value.data()) return writeVariable(name, *d);
  if (const std::string* s = value.string()) return writeVariable(name, Data(s->begin(), s->end()));
  return posixError(EINVAL, name + " takes a string or data value");
}

Result<std::string> LinuxHardwareRegistry::variablePath(const std::string& name) const {
  // The name becomes one file name inside the folder, and the firmware
  // stores it in UCS-2: nothing else may pass.
  if (name.empty() || name.find('/') != std::string::npos || name.find('\0') != std::string::npos)
    return posixError(EINVAL, "variable name \"" + name + "\"");
  if (name.size() > kMaxVariableNameBytes) return posixError(ENAMETOOLONG, "variable name");
  if (!isValidUtf8(name, 0xffff)) return posixError(EILSEQ, "variable name");
  return variableFolder_ + "/" + name + "-" + kVendorGuid;
}

Status LinuxHardwareRegistry::writeVariable(const std::string& name, const Data& bytes) {
  auto path = variablePath(name);
  if (!path) return path.error();
  if (auto cleared = clearImmutable(*path); !cleared) return cleared;
  UniqueFd fd(::open(path->c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (!fd.valid()) return posixError(errno, *path);
  // efivarfs takes a variable in one write: attribute word, then value.
  Data buffer(std::begin(kAttributes), std::end(kAttributes));
  buffer.insert(buffer.end(), bytes.begin(), bytes.end());
  ssize_t n;
  do n = ::write(fd.get(), buffer.data(), buffer.size());
  while (n < 0 && errno == EINTR);
  if (n < 0) return posixError(errno, *path);
  if (static_cast<std::size_t>(n) != buffer.size()) return posixError(EIO, *path);
  // efivarfs replaces the whole variable; an ordinary file (an emulated
  // folder) keeps an older, longer value's tail unless cut.
  struct statfs fsInfo {};
  if (::fstatfs(fd.get(), &fsInfo) == 0 && fsInfo.f_type != EFIVARFS_MAGIC &&
      ::ftruncate(fd.get(), static_cast<off_t>(buffer.size())) != 0)
    return posixError(errno, *path);
  if (::close(fd.release()) != 0) return posixError(errno, *path);
  return {};
}

Status LinuxHardwareRegistry::deleteVariable(const std::string& name) {
  auto path = variablePath(name);
  if (!path) return path.error();
  if (auto cleared = clearImmutable(*path); !cleared) return cleared;
  // Deleting what is not there leaves the wanted state: no such variable.
  if (::unlink(path->c_str()) != 0 && errno != ENOENT) return posixError(errno, *path);
  return {};
}

Status LinuxHardwareRegistry::syncVariable(const std::string& name) {
  auto path = variablePath(name);
  if (!path) return path.error();
  // efivarfs hands every write to the firmware before returning, so a
  // commit only has to find the variable in place.
  struct stat st {};
  if (::lstat(path->c_str(), &st) != 0) return posixError(errno, *path);
  if (!S_ISREG(st.st_mode)) return posixError(EINVAL, *path);
  return {};
}

std::optional<std::string> LinuxHardwareRegistry::partitionUUIDForBSDName(
    const std::string& bsdName) {
  if (bsdName.empty() || bsdName == "." || bsdName == ".." ||
      bsdName.find('/') != std::string::npos || bsdName.find('\0') != std::string::npos)
    return std::nullopt;
  std::string path = deviceFolder_ + "/" + bsdName;
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || !S_ISBLK(st.st_mode)) return std::nullopt;

  std::unique_ptr<std::remove_pointer_t<blkid_probe>, decltype(&blkid_free_probe)> probe(
      blkid_new_probe_from_filename(path.c_str()), blkid_free_probe);
  if (!probe) return std::nullopt;
  blkid_probe_enable_partitions(probe.get(), 1);
  blkid_probe_set_partitions_flags(probe.get(), BLKID_PARTS_ENTRY_DETAILS);
  if (blkid_do_safeprobe(probe.get()) != 0) return std::nullopt;
  const char* value = nullptr;
  std::size_t length = 0;
  if (blkid_probe_lookup_value(probe.get(), "PART_ENTRY_UUID", &value, &length) != 0 || !value)
    return std::nullopt;
  // libblkid counts the terminating NUL in the length.
  std::string uuid(value, length > 0 && value[length - 1] == '\0' ? length - 1 : length);
  for (char& c : uuid) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return uuid;
}

}  // namespace platform
