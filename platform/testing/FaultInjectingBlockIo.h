// Passes block I/O to another BlockIo, keeping a log of every call, and lets
// a test fail a chosen call, tear a write, or cut the disk off from a call
// on (a power cut or a killed process: nothing after it reaches the disk).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/BlockIo.h"

namespace platform::testing {

class FaultInjectingBlockIo : public BlockIo {
 public:
  struct Call {
    char kind;  // 'r', 'w' or 'f'
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
  };

  explicit FaultInjectingBlockIo(BlockIo& inner) : inner_(inner) {}
  // Owns what it wraps (the Linux layer hands its own I/O over to a wrapper).
  explicit FaultInjectingBlockIo(std::unique_ptr<BlockIo> inner)
      : owned_(std::move(inner)), inner_(*owned_) {}

  // Calls are numbered from 1 in the order they come, reads, writes and
  // flushes alike.
  std::optional<std::size_t> failCall;   // this one fails with EIO
  std::optional<std::size_t> failReads;  // every read from this call on fails
  std::optional<std::size_t>
      cutAtWrite;             // this write (counting writes only) and all after it are lost
  std::size_t tornBytes = 0;  // of the cut write, this many reach the disk
  // Called before each call (a test kills its own process there).
  std::function<void(const Call&, std::size_t number)> beforeCall;

  std::vector<Call> calls;
  std::size_t writes() const;
  bool cut() const { return cut_; }

  Status read(std::span<std::uint8_t> buffer, std::uint64_t offset) override;
  Status write(std::span<const std::uint8_t> bytes, std::uint64_t offset) override;
  Status flush() override;

 private:
  // Logs the call; an error when it is to fail.
  Status enter(Call call);

  std::unique_ptr<BlockIo> owned_;
  BlockIo& inner_;
  bool cut_ = false;
};

}  // namespace platform::testing
