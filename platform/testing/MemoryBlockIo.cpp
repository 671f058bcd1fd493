#include "platform/testing/MemoryBlockIo.h"

#include <algorithm>

namespace platform::testing {
namespace {

bool inside(const Data& disk, std::size_t length, std::uint64_t offset) {
  return offset <= disk.size() && length <= disk.size() - offset;
}

}  // namespace

Status MemoryBlockIo::read(std::span<std::uint8_t> buffer, std::uint64_t offset) {
  if (!inside(disk_, buffer.size(), offset)) return Error::posix(5, "read past the disk");
  std::copy_n(disk_.begin() + offset, buffer.size(), buffer.begin());
  return Status::success();
}

Status MemoryBlockIo::write(std::span<const std::uint8_t> bytes, std::uint64_t offset) {
  if (!inside(disk_, bytes.size(), offset)) return Error::posix(5, "write past the disk");
  std::copy(bytes.begin(), bytes.end(), disk_.begin() + offset);
  return Status::success();
}

}  // namespace platform::testing
