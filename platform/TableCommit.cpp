#include "platform/TableCommit.h"

#include <algorithm>
#include <cerrno>

#include "platform/AlignedBuffer.h"

namespace platform {
namespace {

Error invalid(const std::string& why) { return Error::posix(EINVAL, why); }

std::array<std::uint8_t, 16> diskGuidOf(const std::uint8_t* header) {
  std::array<std::uint8_t, 16> guid{};
  std::copy_n(header + gpt::kDiskGuid, 16, guid.begin());
  return guid;
}

}  // namespace

TableCommit::TableCommit(BlockIo& io, PartitionMapper* mapper, std::uint32_t blockSize,
                         std::uint64_t blockCount, CopyLimits limits)
    : io_(io), mapper_(mapper), blockSize_(blockSize), blockCount_(blockCount), limits_(limits) {}

Status TableCommit::write(std::span<const std::uint8_t> bytes, std::uint64_t offset) {
  const std::uint64_t tableBytes = 2ull * blockSize_;
  if (offset < blockSize_ || bytes.size() > tableBytes ||
      offset - blockSize_ > tableBytes - bytes.size())
    return invalid("a partition table write must lie within blocks 1 and 2");
  if (auto pending = finishPending(); !pending) return pending.error();

  auto old = readBlocks(1, 2);
  if (!old) return old.error();
  Data table = *old;
  std::copy(bytes.begin(), bytes.end(), table.begin() + (offset - blockSize_));
  auto sealed = gpt::sealTable(table, blockSize_, blockCount_);
  if (!sealed) return invalid("partition table: " + sealed.error().description);
  auto moves = planMoves(*old, sealed->primary, blockSize_, blockCount_);
  if (!moves) return moves.error();
  if (!moves->empty()) {
    if (blockSize_ < kMoveRecordSize)
      return Error::posix(ENOSPC, "blocks too small for a move record");
    // A copy that fails is undone under the old table, which must be sealable.
    if (!gpt::sealTable(*old, blockSize_, blockCount_))
      return invalid("the table on disk cannot be restored after a failed move");
  }
  Target target{std::move(*sealed), std::move(*moves), {}, diskGuidOf(old->data())};
  if (target.moves.empty()) return commit(target, false);

  PartitionCopier copier(io_, blockSize_, limits_);
  if (auto s = mapper_ ? mapper_->prepare(target.sealed.primary, target.moves) : Status(); !s)
    return s;
  Status done = writeRecord(target, {});
  if (done) done = copy(target, copier);
  if (!done) {
    // Nothing of the new table is on disk yet: the old one stays in force.
    if (rollBack(target, *old, copier.reached()) && mapper_) mapper_->revert();
    return done;
  }
  return commit(target, true);
}

Status TableCommit::copy(const Target& target, PartitionCopier& copier) {
  return copier.run(target.moves, target.position,
                    [&](const CopyPosition& at) { return writeRecord(target, at); });
}

// prepared: the mapper has made way for the table (and its moves, now copied).
Status TableCommit::commit(const Target& target, bool prepared) {
  if (!prepared && mapper_) {
    if (auto s = mapper_->prepare(target.sealed.primary, {}); !s) return s;
  }
  if (auto s = writeTable(target.sealed); !s) {
    // With a record, the next mapping writes the table again.
    if (!recorded_ && mapper_) mapper_->revert();
    return s;
  }
  Status mapped = mapper_ ? mapper_->complete() : Status();
  // The table is final: a record left behind only has it written again.
  (void)clearRecord();
  return mapped;
}

Status TableCommit::rollBack(const Target& failed, const Data& oldTable, CopyPosition reached) {
  const auto undo = undoMoves(failed.moves, reached.current, reached.progress);
  if (undo.empty()) return clearRecord();
  auto sealed = gpt::sealTable(oldTable, blockSize_, blockCount_);
  if (!sealed) return sealed.error();
  Target back{std::move(*sealed), undo, {}, failed.diskGuid};
  PartitionCopier copier(io_, blockSize_, limits_);
  if (auto s = writeRecord(back, {}); !s) return s;
  // When this fails too the record stays, and mapping the disk finishes it.
  if (auto s = copy(back, copier); !s) return s;
  return clearRecord();
}

Result<bool> TableCommit::finishPending() {
  auto found = readRecord();
  if (!found) return found.error();
  if (!*found) return false;
  const MoveRecord& record = **found;
  auto here = recordBelongsHere(record);
  if (!here) return here.error();
  if (!*here) return false;

  const std::string misfit = "the move record in blocks 3 and 4 does not fit this disk";
  if (record.blockSize != blockSize_ || record.blockCount != blockCount_) return invalid(misfit);
  for (const auto& m : record.moves) {
    if (!moveFitsDisk(m, blockCount_)) return invalid(misfit);
  }
  if (record.current < record.moves.size() &&
      record.progress > record.moves[record.current].blocks) {
    return invalid(misfit);
  }
  const Data table = recordedTable(record);
  auto sealed = gpt::sealTable(table, blockSize_, blockCount_);
  if (!sealed || !leavesRecordRoom(table, blockSize_)) return invalid(misfit);

  sequence_ = record.sequence;
  recorded_ = true;
  Target target{
      std::move(*sealed), record.moves, {record.current, record.progress}, record.diskGuid};
  if (mapper_) {
    const std::vector<PartitionMove> left(target.moves.begin() + target.position.current,
                                          target.moves.end());
    if (auto s = mapper_->prepare(target.sealed.primary, left); !s) return s.error();
  }
  PartitionCopier copier(io_, blockSize_, limits_);
  if (auto s = copy(target, copier); !s) return s.error();
  if (auto s = commit(target, true); !s) return s.error();
  return true;
}

Result<bool> TableCommit::recordBelongsHere(const MoveRecord& record) {
  auto primary = readBlocks(1, 2);
  if (!primary) return primary.error();
  // Where a partition owns blocks 3 and 4, they hold its data, not a record.
  if (!leavesRecordRoom(*primary, blockSize_)) return false;
  const auto target = diskGuidOf(record.header.data());
  auto ours = [&](const std::array<std::uint8_t, 16>& guid) {
    return guid == record.diskGuid || guid == target;
  };
  if (ours(diskGuidOf(primary->data()))) return true;
  // A write cut short in the primary table leaves the backup as it was.
  auto backup = readBlocks(blockCount_ - 1, 1);
  if (!backup) return backup.error();
  return ours(diskGuidOf(backup->data()));
}

Status TableCommit::map() {
  auto pending = finishPending();
  if (!pending) return pending.error();
  if (*pending || !mapper_) return Status::success();
  auto table = readBlocks(1, 2);
  if (!table) return table.error();
  if (auto s = mapper_->prepare(*table, {}); !s) return s;
  return mapper_->complete();
}

Status TableCommit::writeRecord(const Target& target, CopyPosition position) {
  MoveRecord r;
  r.sequence = ++sequence_;
  r.blockSize = blockSize_;
  r.blockCount = blockCount_;
  r.diskGuid = target.diskGuid;
  r.moves = target.moves;
  r.current = position.current;
  r.progress = position.progress;
  std::copy_n(target.sealed.primary.begin(), gpt::kHeaderSize, r.header.begin());
  std::copy_n(target.sealed.primary.begin() + blockSize_, gpt::kEntryTableSize, r.entries.begin());
  Data slot = encodeMoveRecord(r);
  slot.resize(blockSize_, 0);
  recorded_ = true;
  if (auto s = writeBlocks(slot, (gpt::kMoveRecordLba + r.sequence % 2) * blockSize_); !s) return s;
  return io_.flush();
}

Status TableCommit::clearRecord() {
  if (!recorded_) return Status::success();
  // The older slot first: cleared the other way round, a cut in between
  // would bring an out-of-date state back.
  const Data empty(blockSize_, 0);
  for (std::uint64_t slot : {(sequence_ + 1) % 2, sequence_ % 2}) {
    if (auto s = writeBlocks(empty, (gpt::kMoveRecordLba + slot) * blockSize_); !s) return s;
    if (auto s = io_.flush(); !s) return s;
  }
  recorded_ = false;
  return Status::success();
}

Status TableCommit::writeTable(const gpt::SealedTable& sealed) {
  if (auto s = writeBlocks(sealed.primary, blockSize_); !s) return s;
  for (const auto& w : sealed.backup) {
    if (auto s = writeBlocks(w.bytes, w.offset); !s) return s;
  }
  return io_.flush();
}

Status TableCommit::writeBlocks(std::span<const std::uint8_t> bytes, std::uint64_t offset) {
  AlignedBuffer buffer(bytes.size());
  std::copy(bytes.begin(), bytes.end(), buffer.data());
  return io_.write(buffer.span(), offset);
}

Result<Data> TableCommit::readBlocks(std::uint64_t lba, std::uint64_t count) {
  AlignedBuffer buffer(count * blockSize_);
  if (auto s = io_.read(buffer.span(), lba * blockSize_); !s) return s.error();
  return Data(buffer.data(), buffer.data() + buffer.size());
}

Result<std::optional<MoveRecord>> TableCommit::readRecord() {
  const std::uint64_t slots = gpt::kMoveRecordSlots;
  if (blockSize_ < kMoveRecordSize || blockCount_ < gpt::kFirstPartitionLba + 3)
    return std::optional<MoveRecord>();
  auto blocks = readBlocks(gpt::kMoveRecordLba, slots);
  if (!blocks) return blocks.error();
  std::optional<MoveRecord> newest;
  for (std::uint64_t i = 0; i < slots; ++i) {
    auto r = decodeMoveRecord({blocks->data() + i * blockSize_, blockSize_});
    if (r && (!newest || r->sequence > newest->sequence)) newest = std::move(r);
  }
  return newest;
}

}  // namespace platform
