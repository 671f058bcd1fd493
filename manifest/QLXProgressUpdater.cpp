#include "manifest/QLXProgressUpdater.h"

#include "logging/QLXHLog.h"

QLXProgressUpdater::QLXProgressUpdater(Sender sender) : sender_(std::move(sender)) {}

QLXProgressUpdater& QLXProgressUpdater::sharedInstance() {
  // Made once under the language's once-only guard and never destroyed, so
  // no request still reporting progress races its destruction at exit.
  static QLXProgressUpdater* instance = new QLXProgressUpdater();
  return *instance;
}

void QLXProgressUpdater::setSender(Sender sender) {
  std::lock_guard<std::mutex> guard(senderLock_);
  sender_ = std::move(sender);
}

void QLXProgressUpdater::initializePercentageWithTotal(std::int64_t total) {
  QLXHLog("Initializing percent with total %lld", total);
  setFinished(0);
  setTotal(total);
  setReportedPercent(0);
}

void QLXProgressUpdater::updatePercentageWithIncrement(std::int64_t increment) {
  // 64-bit arithmetic that wraps instead of being undefined on overflow.
  auto wrap = [](std::uint64_t u) { return static_cast<std::int64_t>(u); };
  std::int64_t done =
      wrap(static_cast<std::uint64_t>(finished()) + static_cast<std::uint64_t>(increment));
  setFinished(done);
  std::int64_t total = this->total();
  // Nothing to measure against: an empty tree reports nothing.
  if (total == 0) return;
  std::int64_t product = wrap(static_cast<std::uint64_t>(done) * 100u);
  std::int64_t quotient =
      total == -1 ? wrap(0u - static_cast<std::uint64_t>(product)) : product / total;
  auto percent = static_cast<std::int32_t>(quotient);
  if (percent <= reportedPercent()) return;
  QLXHLog("Percentage increased to %d", percent);
  {
    std::lock_guard<std::mutex> guard(senderLock_);
    if (sender_) sender_(static_cast<std::int64_t>(percent));
  }
  setReportedPercent(percent);
}
