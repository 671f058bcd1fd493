// Runs tasks one at a time, in the order they were posted, on a thread of
// its own. It starts suspended (tasks wait until resume()), and its thread
// ends once the queue is closed and drained, so an owner that is gone never
// leaves a thread behind.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace ovix {

class SerialQueue {
 public:
  using Task = std::function<void()>;

  static std::shared_ptr<SerialQueue> create();

  // False once the queue has been closed: the task is dropped.
  bool post(Task task);
  void resume();
  // Accepts no more tasks; those already posted still run (after resume).
  void close();
  // For an owner that goes away without ever resuming: drops what waits
  // and closes, so tasks holding their owner cannot keep it alive forever.
  void abandonIfSuspended();
  bool isCurrent() const;

  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;
  SerialQueue() = default;

 private:
  static void run(std::shared_ptr<SerialQueue> self);
  void startThreadLocked();

  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<Task> tasks_;
  bool resumed_ = false;
  bool closed_ = false;
  bool threadStarted_ = false;
  std::weak_ptr<SerialQueue> self_;
};

}  // namespace ovix
