// Turns bytes done against a total into whole percentages and sends each
// percentage once, when it rises.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>

class QLXProgressUpdater {
 public:
  // Carries one percentage to the client.
  using Sender = std::function<void(std::int64_t percent)>;

  explicit QLXProgressUpdater(Sender sender = nullptr);

  // The process's one updater, made on first use. It sends nothing until
  // main binds it to the responder:
  //   QLXProgressUpdater::sharedInstance().setSender(
  //       [](std::int64_t p) { QLXHMessageResponder::sharedInstance().sendProgress(p); });
  static QLXProgressUpdater& sharedInstance();
  void setSender(Sender sender);

  void initializePercentageWithTotal(std::int64_t total);
  void updatePercentageWithIncrement(std::int64_t increment);

  std::int64_t total() const { return total_.load(); }
  void setTotal(std::int64_t total) { total_.store(total); }
  std::int64_t finished() const { return finished_.load(); }
  void setFinished(std::int64_t finished) { finished_.store(finished); }
  std::int32_t reportedPercent() const { return reportedPercent_.load(); }
  void setReportedPercent(std::int32_t percent) { reportedPercent_.store(percent); }

 private:
  // Atomic so a reader never sees half of a 64-bit value; one operation at a
  // time updates them, so the read-add-write needs no lock.
  std::atomic<std::int64_t> total_{0};
  std::atomic<std::int64_t> finished_{0};
  std::atomic<std::int32_t> reportedPercent_{0};
  std::mutex senderLock_;
  Sender sender_;
};
