#include "platform/PartitionCopier.h"

#include <algorithm>

#include "platform/AlignedBuffer.h"

namespace platform {

PartitionCopier::PartitionCopier(BlockIo& io, std::uint32_t blockSize, CopyLimits limits)
    : io_(io),
      blockSize_(blockSize),
      chunkBlocks_(std::max<std::uint64_t>(1, limits.chunkBytes / blockSize)),
      stepBlocks_(std::max<std::uint64_t>(1, limits.stepBytes / blockSize)) {}

Status PartitionCopier::run(const std::vector<PartitionMove>& moves, CopyPosition from,
                            const Recorder& record) {
  reached_ = from;
  for (std::uint32_t i = from.current; i < moves.size(); ++i) {
    const PartitionMove& m = moves[i];
    const std::uint64_t step = std::min(stepBlocks_, m.distance());
    std::uint64_t progress = i == from.current ? from.progress : 0;
    reached_ = {i, progress};
    while (progress < m.blocks) {
      const std::uint64_t blocks = std::min(step, m.blocks - progress);
      if (auto s = copyStep(m, progress, blocks); !s) return s;
      if (auto s = io_.flush(); !s) return s;
      progress += blocks;
      const CopyPosition now =
          progress < m.blocks ? CopyPosition{i, progress} : CopyPosition{i + 1, 0};
      if (auto s = record(now); !s) return s;
      reached_ = now;
    }
  }
  return Status::success();
}

Status PartitionCopier::copyStep(const PartitionMove& m, std::uint64_t progress,
                                 std::uint64_t blocks) {
  AlignedBuffer buffer(std::min(chunkBlocks_, blocks) * blockSize_);
  for (std::uint64_t done = 0; done < blocks;) {
    const std::uint64_t n = std::min(chunkBlocks_, blocks - done);
    // Offset of this chunk within the partition.
    const std::uint64_t at = m.forward() ? m.blocks - progress - done - n : progress + done;
    auto bytes = buffer.span(n * blockSize_);
    if (auto s = io_.read(bytes, (m.from + at) * blockSize_); !s) return s;
    if (auto s = io_.write(bytes, (m.to + at) * blockSize_); !s) return s;
    done += n;
    reached_.progress += n;
  }
  return Status::success();
}

}  // namespace platform
