#include "storage/BrovGeometry.h"

#include <bit>
#include <cstdio>

namespace {
constexpr std::uint64_t kLargestMedia = 1ull << 42;
constexpr std::uint32_t kSmallestBlock = 4096;
constexpr std::uint32_t kLargestBlock = 16384;
constexpr std::uint32_t kReservedChunks = 8;
}  // namespace

int brovInitMediaGeometry(BrovMediaGeometry* geometry, std::uint64_t mediaSize,
                          std::uint32_t blockSize) {
  if (geometry == nullptr) {
    std::fputs("brov: NULL media properties\n", stderr);
    return -1;
  }
  geometry->mediaSize = mediaSize;
  geometry->blockSize = blockSize;
  if (mediaSize > kLargestMedia) {
    std::fputs("brov: media too large\n", stderr);
    return -1;
  }
  if (blockSize < kSmallestBlock) {
    std::fputs("brov: media block size too small\n", stderr);
    return -1;
  }
  if (blockSize > kLargestBlock) {
    std::fputs("brov: media block size too large\n", stderr);
    return -1;
  }
  geometry->blockShift = static_cast<std::uint32_t>(std::bit_width(blockSize) - 1);
  // Taken from media size - 1 in 64 bits, so empty media wraps to a huge shift.
  geometry->chunkShift = static_cast<std::uint32_t>(std::bit_width((mediaSize - 1) >> 10));
  geometry->chunkSize = geometry->chunkShift >= 32 ? 0 : 1u << geometry->chunkShift;
  if (geometry->chunkSize < blockSize) {
    // Only a warning: the media is still described.
    std::fputs("brov: media too small\n", stderr);
  }
  geometry->chunkCount = static_cast<std::uint32_t>(mediaSize >> geometry->chunkShift);
  const std::uint32_t usableChunks = geometry->chunkCount - kReservedChunks;
  geometry->usableSize = std::uint64_t(usableChunks) * geometry->chunkSize;
  return 0;
}
