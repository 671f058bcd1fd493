// SHA-1 of a file's contents, read in fixed chunks through one reusable
// buffer so memory stays the same whatever the file's size.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Digest.h"
#include "platform/FileSystem.h"

// Where a record gets the hash of a file's contents from.
class QLXFileHashSource {
 public:
  virtual ~QLXFileHashSource() = default;
  // The digest; nothing (after logging why) when the file cannot be read.
  // identity, when given, receives the hashed file's identity if it held
  // still while it was read, and is left empty otherwise.
  virtual std::optional<platform::Data> fileHash(
      const std::string& path, std::optional<platform::FileIdentity>* identity = nullptr) = 0;
};

// The result of hashing without its messages, so that work done ahead on
// another thread can be reported in walk order.
struct QLXFileHashOutcome {
  enum class Status { Hashed, CannotOpen, CannotRead, Cancelled };
  Status status = Status::Cancelled;
  platform::Data digest;
  // Hashed only: the file's identity when it held still while it was read.
  std::optional<platform::FileIdentity> identity;
};

class QLXFileHasher : public QLXFileHashSource {
 public:
  static constexpr std::size_t kChunkSize = 262144;

  QLXFileHasher(platform::FileSystem& fileSystem, platform::DigestService& digests);

  // Hashes and logs why when it cannot.
  std::optional<platform::Data> fileHash(
      const std::string& path, std::optional<platform::FileIdentity>* identity = nullptr) override;
  // Folders are never hashed.
  static std::optional<platform::Data> directoryHash() { return std::nullopt; }

  // Hashes without logging; gives up between chunks once cancel is set.
  QLXFileHashOutcome compute(const std::string& path, const std::atomic<bool>* cancel = nullptr);
  // Logs what an outcome means and answers the digest, if any.
  static std::optional<platform::Data> report(QLXFileHashOutcome outcome, const std::string& path,
                                              std::optional<platform::FileIdentity>* identity);

 private:
  platform::FileSystem& fileSystem_;
  platform::DigestService& digests_;
  std::unique_ptr<platform::Digest> digest_;
  std::vector<std::uint8_t> buffer_;
};
