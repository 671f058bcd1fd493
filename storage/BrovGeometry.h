// The volume manager's view of a disk: whether it can describe the media,
// and the chunk geometry it derives from the media and block sizes.
#pragma once

#include <cstdint>

struct BrovMediaGeometry {
  std::uint64_t mediaSize = 0;   // bytes
  std::uint64_t usableSize = 0;  // bytes: all chunks but the eight held back
  std::uint32_t chunkCount = 0;
  std::uint32_t blockSize = 0;   // bytes
  std::uint32_t blockShift = 0;  // index of the block size's highest set bit
  std::uint32_t chunkSize = 0;   // bytes; 0 when the chunk shift reaches 32
  std::uint32_t chunkShift = 0;  // smallest power of two for which 1024 chunks cover the media
};

// Fills the geometry of media of mediaSize bytes in blocks of blockSize
// bytes. Returns 0, or -1 with a "brov: " line on standard error when the
// media is unsuitable. Media smaller than one chunk per block only warns.
int brovInitMediaGeometry(BrovMediaGeometry* geometry, std::uint64_t mediaSize,
                          std::uint32_t blockSize);
