// The data disk opened a second time for the volume layer's own block work,
// with direct I/O: partition copies bypass the page cache (neither filling
// it with a partition's blocks nor being held up by it), and records and
// tables reach the device in the order they are written.
#pragma once

#include <memory>
#include <string>

#include "platform/BlockIo.h"
#include "platform/linux/UniqueFd.h"

namespace platform {

class DirectBlockIo : public BlockIo {
 public:
  // Read-write where allowed, else read-only (writes then fail). A file
  // system without direct I/O for an image file gets buffered I/O.
  static Result<std::unique_ptr<BlockIo>> open(const std::string& path);

  Status read(std::span<std::uint8_t> buffer, std::uint64_t offset) override;
  Status write(std::span<const std::uint8_t> bytes, std::uint64_t offset) override;
  Status flush() override;

 private:
  explicit DirectBlockIo(UniqueFd fd) : fd_(std::move(fd)) {}
  UniqueFd fd_;
};

}  // namespace platform
