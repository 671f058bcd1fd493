// Whole-block access to the data disk for the volume layer's own work:
// moving partitions, keeping its move record and writing the sealed table.
// Offsets and lengths are multiples of the block size; buffers come from
// AlignedBuffer, so a device opened for direct I/O takes them as they are.
#pragma once

#include <cstdint>
#include <span>

#include "platform/Result.h"

namespace platform {

class BlockIo {
 public:
  virtual ~BlockIo() = default;
  // All of buffer.size() bytes or an error; a short transfer is an error.
  virtual Status read(std::span<std::uint8_t> buffer, std::uint64_t offset) = 0;
  virtual Status write(std::span<const std::uint8_t> bytes, std::uint64_t offset) = 0;
  // Every write so far is on stable storage when this returns.
  virtual Status flush() = 0;
};

}  // namespace platform
