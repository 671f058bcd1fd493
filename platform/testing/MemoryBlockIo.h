// Block access to a disk held in memory.
#pragma once

#include "platform/BlockIo.h"
#include "platform/Value.h"

namespace platform::testing {

class MemoryBlockIo : public BlockIo {
 public:
  explicit MemoryBlockIo(Data& disk) : disk_(disk) {}

  Status read(std::span<std::uint8_t> buffer, std::uint64_t offset) override;
  Status write(std::span<const std::uint8_t> bytes, std::uint64_t offset) override;
  Status flush() override { return Status::success(); }

 private:
  Data& disk_;
};

}  // namespace platform::testing
