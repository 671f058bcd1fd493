#include "manifest/QLXHashingEnumerator.h"

#include <algorithm>

using platform::ResourceKey;

platform::Result<bool> QLXHashingEnumerator::Item::resourceValue(ResourceKey key) const {
  const ResourceValue& v = values[static_cast<std::size_t>(key)];
  if (v.error) return *v.error;
  return v.value;
}

QLXHashingEnumerator::QLXHashingEnumerator(platform::FileSystem& fileSystem,
                                           platform::DigestService& digests,
                                           const std::string& start, SkipTest skip,
                                           unsigned workers)
    : fileSystem_(fileSystem),
      digests_(digests),
      skip_(std::move(skip)),
      hashAhead_(workers > 0),
      hasher_(fileSystem, digests) {
  // A folder that cannot be read becomes a step of its own, so that its
  // message comes out between the entries it came between.
  enumerator_ = fileSystem_.enumeratorAtPath(
      start, [this](const std::string& path, const platform::Error& error) {
        Slot slot;
        slot.item.kind = Item::Kind::EnumerationError;
        slot.item.path = path;
        slot.item.error = error;
        ahead_.push_back(std::move(slot));
        return true;
      });
  for (unsigned i = 0; i < workers; ++i) workers_.emplace_back([this] { work(); });
}

QLXHashingEnumerator::~QLXHashingEnumerator() {
  {
    std::lock_guard<std::mutex> guard(lock_);
    stopping_ = true;
    queue_.clear();
  }
  cancel_.store(true);
  workAvailable_.notify_all();
  for (std::thread& t : workers_) t.join();
}

void QLXHashingEnumerator::pull() {
  std::optional<std::string> path = enumerator_->nextPath();
  if (!path) {
    exhausted_ = true;
    return;
  }
  Slot slot;
  slot.item.path = std::move(*path);
  for (ResourceKey key :
       {ResourceKey::IsRegularFile, ResourceKey::IsDirectory, ResourceKey::IsSymbolicLink}) {
    auto value = enumerator_->resourceValue(key);
    auto& stored = slot.item.values[static_cast<std::size_t>(key)];
    if (value)
      stored.value = *value;
    else
      stored.error = value.error();
  }
  const auto& v = slot.item.values;
  bool regular = v[0].value && !v[0].error && !v[2].value && !v[2].error;
  if (skip_ && skip_(slot.item.path)) {
    // The walk leaves the entry out, and everything below it with it.
    enumerator_->skipDescendants();
  } else if (regular && hashAhead_) {
    slot.job = std::make_shared<Job>(slot.item.path);
    {
      std::lock_guard<std::mutex> guard(lock_);
      queue_.push_back(slot.job);
    }
    workAvailable_.notify_one();
  }
  ahead_.push_back(std::move(slot));
}

std::optional<QLXHashingEnumerator::Item> QLXHashingEnumerator::next() {
  while (!exhausted_ && ahead_.size() < kLookahead) pull();
  if (ahead_.empty()) {
    current_.reset();
    return std::nullopt;
  }
  Slot slot = std::move(ahead_.front());
  ahead_.pop_front();
  current_ = std::move(slot.job);
  return std::move(slot.item);
}

std::optional<platform::Data> QLXHashingEnumerator::fileHash(
    const std::string& path, std::optional<platform::FileIdentity>* identity) {
  std::shared_ptr<Job> job = std::move(current_);
  if (!job || job->path != path) return hasher_.fileHash(path, identity);
  std::unique_lock<std::mutex> guard(lock_);
  if (job->state == Job::State::Queued) {
    // No worker got to it yet: hash it here rather than wait. It is near the
    // front (earlier jobs are left behind only when their entry changed
    // kind before its record was made).
    auto it = std::find(queue_.begin(), queue_.end(), job);
    if (it != queue_.end()) queue_.erase(it);
    job->state = Job::State::Running;
    guard.unlock();
    return QLXFileHasher::report(hasher_.compute(path), path, identity);
  }
  jobDone_.wait(guard, [&] { return job->state == Job::State::Done; });
  return QLXFileHasher::report(std::move(job->outcome), path, identity);
}

void QLXHashingEnumerator::work() {
  QLXFileHasher hasher(fileSystem_, digests_);
  for (;;) {
    std::shared_ptr<Job> job;
    {
      std::unique_lock<std::mutex> guard(lock_);
      workAvailable_.wait(guard, [&] { return stopping_ || !queue_.empty(); });
      if (stopping_) return;
      job = std::move(queue_.front());
      queue_.pop_front();
      job->state = Job::State::Running;
    }
    QLXFileHashOutcome outcome = hasher.compute(job->path, &cancel_);
    {
      std::lock_guard<std::mutex> guard(lock_);
      job->outcome = std::move(outcome);
      job->state = Job::State::Done;
    }
    jobDone_.notify_all();
  }
}
