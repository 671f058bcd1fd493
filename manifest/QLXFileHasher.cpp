#include "manifest/QLXFileHasher.h"

#include "logging/QLXHLog.h"

QLXFileHasher::QLXFileHasher(platform::FileSystem& fileSystem, platform::DigestService& digests)
    : fileSystem_(fileSystem), digests_(digests) {}

std::optional<platform::Data> QLXFileHasher::fileHash(
    const std::string& path, std::optional<platform::FileIdentity>* identity) {
  return report(compute(path), path, identity);
}

QLXFileHashOutcome QLXFileHasher::compute(const std::string& path,
                                          const std::atomic<bool>* cancel) {
  using Status = QLXFileHashOutcome::Status;
  auto file = fileSystem_.openForReading(path);
  if (!file) return {Status::CannotOpen, {}, std::nullopt};
  if (!digest_) digest_ = digests_.makeSha1();
  if (!digest_) return {Status::CannotRead, {}, std::nullopt};
  if (buffer_.empty()) buffer_.resize(kChunkSize);
  auto before = (*file)->identity();
  std::uint64_t bytes = 0;
  for (;;) {
    auto n = (*file)->read(buffer_);
    if (!n || (cancel && cancel->load(std::memory_order_relaxed))) {
      (void)digest_->finish();  // the context starts clean for the next file
      return {n ? Status::Cancelled : Status::CannotRead, {}, std::nullopt};
    }
    if (*n == 0) break;
    bytes += *n;
    digest_->update(std::span<const std::uint8_t>(buffer_.data(), *n));
  }
  QLXFileHashOutcome outcome{Status::Hashed, digest_->finish(), std::nullopt};
  // The digest describes the identity only if nothing was written while it
  // was read and every byte the file holds went into it.
  auto after = (*file)->identity();
  if (before && after && *before == *after && bytes == after->size)
    outcome.identity = std::move(*after);
  return outcome;
}

std::optional<platform::Data> QLXFileHasher::report(
    QLXFileHashOutcome outcome, const std::string& path,
    std::optional<platform::FileIdentity>* identity) {
  if (identity) *identity = outcome.identity;
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
