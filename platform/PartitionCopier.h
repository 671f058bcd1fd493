// Copies partitions' blocks for a list of moves, in large chunks, in the
// direction that never overwrites a block not yet copied: back to front
// when a partition moves forward, front to back when it moves backward.
// After every step it reports how far it has got, and the caller records
// that durably before the next step begins. A step is never longer than
// the move's distance, so its writes cannot reach source blocks the last
// recorded state still needs: a copy cut short anywhere is finished by
// running again from the recorded state.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "platform/BlockIo.h"
#include "platform/MovePlan.h"

namespace platform {

struct CopyLimits {
  std::uint64_t chunkBytes = 4ull << 20;   // one read and one write
  std::uint64_t stepBytes = 256ull << 20;  // copied between two records
};

struct CopyPosition {
  std::uint32_t current = 0;   // index of the move under way
  std::uint64_t progress = 0;  // its blocks copied
};

class PartitionCopier {
 public:
  // Makes the position durable; the copy stops when it fails.
  using Recorder = std::function<Status(const CopyPosition&)>;

  PartitionCopier(BlockIo& io, std::uint32_t blockSize, CopyLimits limits = {});

  // Copies moves from position on; after the last move the position is
  // {moves.size(), 0}.
  Status run(const std::vector<PartitionMove>& moves, CopyPosition from, const Recorder& record);

  // How far the copy really got: whole chunks only.
  CopyPosition reached() const { return reached_; }

 private:
  Status copyStep(const PartitionMove& move, std::uint64_t progress, std::uint64_t blocks);

  BlockIo& io_;
  std::uint32_t blockSize_;
  std::uint64_t chunkBlocks_;
  std::uint64_t stepBlocks_;
  CopyPosition reached_;
};

}  // namespace platform
