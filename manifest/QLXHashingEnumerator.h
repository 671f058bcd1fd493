// Walks ahead of the manifest builder and hashes the regular files it is
// about to need on worker threads, so reading and hashing overlap with the
// per-entry work of the walk. Entries, enumeration errors and hash
// outcomes are handed out strictly in walk order and logged by the
// consumer, so records, messages, progress and stops are exactly those of a
// walk without look-ahead.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "manifest/QLXFileHasher.h"
#include "platform/Digest.h"
#include "platform/FileSystem.h"

class QLXHashingEnumerator : public QLXFileHashSource {
 public:
  // One step of the walk: an entry, or a folder the walk could not read.
  struct Item {
    enum class Kind { Entry, EnumerationError };
    Kind kind = Kind::Entry;
    std::string path;
    std::optional<platform::Error> error;  // EnumerationError only

    platform::Result<bool> resourceValue(platform::ResourceKey key) const;

    struct ResourceValue {
      bool value = false;
      std::optional<platform::Error> error;
    };
    std::array<ResourceValue, 3> values;  // in ResourceKey order
  };
  // Entries the walk will leave out with their contents.
  using SkipTest = std::function<bool(const std::string& path)>;

  // workers == 0 hashes everything on the caller's thread, when asked.
  QLXHashingEnumerator(platform::FileSystem& fileSystem, platform::DigestService& digests,
                       const std::string& start, SkipTest skip, unsigned workers);
  ~QLXHashingEnumerator() override;
  QLXHashingEnumerator(const QLXHashingEnumerator&) = delete;
  QLXHashingEnumerator& operator=(const QLXHashingEnumerator&) = delete;

  // The next step in walk order; nothing when the walk is done.
  std::optional<Item> next();
  // The hash of the entry last handed out, done ahead when it could be;
  // any other path is hashed on the spot.
  std::optional<platform::Data> fileHash(
      const std::string& path, std::optional<platform::FileIdentity>* identity = nullptr) override;

 private:
  struct Job {
    enum class State { Queued, Running, Done };
    explicit Job(std::string p) : path(std::move(p)) {}
    std::string path;
    State state = State::Queued;
    QLXFileHashOutcome outcome;
  };
  struct Slot {
    Item item;
    std::shared_ptr<Job> job;
  };

  void pull();
  void work();

  // Far enough ahead to keep the workers busy across a run of small files,
  // small enough that the look-ahead costs a few hundred kilobytes.
  static constexpr std::size_t kLookahead = 512;

  platform::FileSystem& fileSystem_;
  platform::DigestService& digests_;
  SkipTest skip_;
  const bool hashAhead_;
  std::unique_ptr<platform::DirectoryEnumerator> enumerator_;
  bool exhausted_ = false;
  std::deque<Slot> ahead_;
  std::shared_ptr<Job> current_;
  QLXFileHasher hasher_;

  std::mutex lock_;
  std::condition_variable workAvailable_;
  std::condition_variable jobDone_;
  std::deque<std::shared_ptr<Job>> queue_;
  bool stopping_ = false;
  std::atomic<bool> cancel_{false};
  std::vector<std::thread> workers_;
};
