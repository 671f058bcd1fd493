// The volume layer's record of a table write that moves partitions: the
// moves, how far the copy has got and the table being written. It lives in
// two slots (blocks 3 and 4, one block each) written in turn, so a write
// torn by a power cut leaves the previous state readable; the valid slot
// with the higher sequence number counts. Layout in docs/storage.md.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/GptDisk.h"
#include "platform/MovePlan.h"
#include "platform/Value.h"

namespace platform {

struct MoveRecord {
  std::uint64_t sequence = 0;
  std::uint32_t blockSize = 0;
  std::uint64_t blockCount = 0;
  // The disk GUID of the table on disk when the write began.
  std::array<std::uint8_t, 16> diskGuid{};
  std::vector<PartitionMove> moves;  // in copy order, at most 8
  // The move being copied; moves.size() once every copy is done and the
  // table is being written.
  std::uint32_t current = 0;
  // Blocks of moves[current] copied: its tail when it moves forward (copied
  // back to front), its head when it moves backward.
  std::uint64_t progress = 0;
  std::array<std::uint8_t, gpt::kHeaderSize> header{};       // the table being written
  std::array<std::uint8_t, gpt::kEntryTableSize> entries{};  // its 8 entries
};

inline constexpr std::size_t kMoveRecordSize = 1448;

// kMoveRecordSize bytes; the caller pads them to a block.
Data encodeMoveRecord(const MoveRecord& record);

// The record a slot holds, or nothing when the magic, version, size, counts
// or CRC-32 do not check out (an empty slot, a torn write).
std::optional<MoveRecord> decodeMoveRecord(std::span<const std::uint8_t> slot);

// Blocks 1 and 2 holding the record's table (zeros beyond header and entries).
Data recordedTable(const MoveRecord& record);

}  // namespace platform
