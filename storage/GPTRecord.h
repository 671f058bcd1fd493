// The GPT header record and entries as the resize driver holds them: the
// first 92 bytes of block 1 and the first 1024 bytes of block 2, verbatim,
// with accessors for the fields it works on.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "platform/GptDisk.h"

struct GPTEntry {
  std::array<std::uint8_t, platform::gpt::kEntrySize> bytes{};

  std::uint64_t firstLBA() const { return platform::gpt::load64(&bytes[platform::gpt::kFirstLba]); }
  std::uint64_t lastLBA() const { return platform::gpt::load64(&bytes[platform::gpt::kLastLba]); }
  void setFirstLBA(std::uint64_t v) { platform::gpt::store64(&bytes[platform::gpt::kFirstLba], v); }
  void setLastLBA(std::uint64_t v) { platform::gpt::store64(&bytes[platform::gpt::kLastLba], v); }
  // last - first + 1, in 64-bit arithmetic as stored.
  std::uint64_t blockCount() const { return lastLBA() - firstLBA() + 1; }
  std::span<std::uint8_t, 16> typeGUID() {
    return std::span<std::uint8_t, 16>(&bytes[platform::gpt::kTypeGuid], 16);
  }
  std::span<std::uint8_t, 16> uniqueGUID() {
    return std::span<std::uint8_t, 16>(&bytes[platform::gpt::kUniqueGuid], 16);
  }
  std::span<std::uint8_t, platform::gpt::kNameSize> name() {
    return std::span<std::uint8_t, platform::gpt::kNameSize>(&bytes[platform::gpt::kName],
                                                             platform::gpt::kNameSize);
  }
};

using GPTEntryTable = std::array<GPTEntry, platform::gpt::kMaxEntries>;

struct GPTHeader {
  std::array<std::uint8_t, platform::gpt::kHeaderSize> bytes{};

  std::uint64_t firstUsableLBA() const {
    return platform::gpt::load64(&bytes[platform::gpt::kFirstUsableLba]);
  }
  std::uint64_t lastUsableLBA() const {
    return platform::gpt::load64(&bytes[platform::gpt::kLastUsableLba]);
  }
  // Stored unsigned, used as a signed count of the partitions in use.
  std::int32_t entryCount() const {
    return static_cast<std::int32_t>(platform::gpt::load32(&bytes[platform::gpt::kEntryCount]));
  }
  void setEntryCount(std::int32_t n) {
    platform::gpt::store32(&bytes[platform::gpt::kEntryCount], static_cast<std::uint32_t>(n));
  }
};

// The GPT header record together with its entry table.
struct GPTHeaderRecord {
  GPTHeader header;
  GPTEntryTable entries;
};
