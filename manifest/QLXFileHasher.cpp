#include "manifest/QLXFileHasher.h"

#include "logging/QLXHLog.h"

QLXFileHasher::QLXFileHasher(platform::FileSystem& fileSystem, platform::DigestService& digests)
    : fileSystem_(fileSystem), digests_(digests) {}

std::optional<platform::Data> QLXFileHasher::fileHash(const std::string& path) {
  return report(compute(path), path);
}

QLXFileHashOutcome QLXFileHasher::compute(const std::string& path,
                                          const std::atomic<bool>* cancel) {
  using Status = QLXFileHashOutcome::Status;
  auto file = fileSystem_.openForReading(path);
  if (!file) return {Status::CannotOpen, {}};
  if (!digest_) digest_ = digests_.makeSha1();
  if (!digest_) return {Status::CannotRead, {}};
  if (buffer_.empty()) buffer_.resize(kChunkSize);
  for (;;) {
    auto n = (*file)->read(buffer_);
    if (!n || (cancel && cancel->load(std::memory_order_relaxed))) {
      (void)digest_->finish();  // the context starts clean for the next file
      return {n ? Status::Cancelled : Status::CannotRead, {}};
    }
    if (*n == 0) break;
    digest_->update(std::span<const std::uint8_t>(buffer_.data(), *n));
  }
  return {Status::Hashed, digest_->finish()};
}

std::optional<platform::Data> QLXFileHasher::report(QLXFileHashOutcome outcome,
                                                    const std::string& path) {
  switch (outcome.status) {
    case QLXFileHashOutcome::Status::Hashed:
      return std::move(outcome.digest);
    case QLXFileHashOutcome::Status::CannotOpen:
      QLXHLog("Cannot read file %@", path);
      return std::nullopt;
    case QLXFileHashOutcome::Status::CannotRead:
      QLXHLog("Cannot read data from %@.", path);
      return std::nullopt;
    case QLXFileHashOutcome::Status::Cancelled:
      break;
  }
  return std::nullopt;
}
