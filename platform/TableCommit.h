// A write of the data disk's partition table as the volume manager carries
// it out: sealed (both CRCs, backup GPT), with every partition whose first
// block moves copied to its new place first, and the partition mapping
// brought in line. A move record in blocks 3 and 4 makes a write cut short
// at any moment finishable; one found is finished before anything else.
// Pure code over BlockIo, shared by the Linux volume layer and the disk in
// memory the storage tests use.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/BlockIo.h"
#include "platform/GptDisk.h"
#include "platform/MoveRecord.h"
#include "platform/PartitionCopier.h"
#include "platform/PartitionMapper.h"

namespace platform {

class TableCommit {
 public:
  // mapper may be null for a disk nobody maps (an image file, a disk in memory).
  TableCommit(BlockIo& io, PartitionMapper* mapper, std::uint32_t blockSize,
              std::uint64_t blockCount, CopyLimits limits = {});

  // Writes bytes at a disk offset inside blocks 1 and 2 (EINVAL otherwise).
  // The table is final, sealed and mapped only once every move is copied; a
  // failed copy leaves the old table, contents and mapping in force.
  Status write(std::span<const std::uint8_t> bytes, std::uint64_t offset);

  // Maps the partitions as the table on disk lists them, after finishing a
  // write cut short.
  Status map();

  // Finishes a write the move record shows cut short: true when there was
  // one. A record left by another disk, or in blocks a partition owns, is
  // not one; a record of this disk that does not fit it is an error.
  Result<bool> finishPending();

 private:
  struct Target {
    gpt::SealedTable sealed;  // the table written at the end
    std::vector<PartitionMove> moves;
    CopyPosition position;
    std::array<std::uint8_t, 16> diskGuid{};
  };

  Status commit(const Target& target, bool prepared);
  Status rollBack(const Target& failed, const Data& oldTable, CopyPosition reached);
  Status copy(const Target& target, PartitionCopier& copier);
  Status writeRecord(const Target& target, CopyPosition position);
  Status clearRecord();
  Status writeTable(const gpt::SealedTable& sealed);
  Status writeBlocks(std::span<const std::uint8_t> bytes, std::uint64_t offset);
  Result<Data> readBlocks(std::uint64_t lba, std::uint64_t count);
  Result<std::optional<MoveRecord>> readRecord();
  Result<bool> recordBelongsHere(const MoveRecord& record);

  BlockIo& io_;
  PartitionMapper* mapper_;
  std::uint32_t blockSize_;
  std::uint64_t blockCount_;
  CopyLimits limits_;
  std::uint64_t sequence_ = 0;  // of the last record written or found
  bool recorded_ = false;       // a record is on disk
};

}  // namespace platform
