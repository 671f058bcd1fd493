#include "ovix/SerialQueue.h"

#include <system_error>
#include <thread>

namespace ovix {

namespace {
thread_local const SerialQueue* tCurrent = nullptr;
}

std::shared_ptr<SerialQueue> SerialQueue::create() {
  auto q = std::make_shared<SerialQueue>();
  q->self_ = q;
  return q;
}

bool SerialQueue::post(Task task) {
  std::lock_guard lock(mutex_);
  if (closed_) return false;
  tasks_.push_back(std::move(task));
  if (resumed_ && !threadStarted_) startThreadLocked();
  cv_.notify_one();
  return true;
}

void SerialQueue::resume() {
  std::lock_guard lock(mutex_);
  if (resumed_) return;
  resumed_ = true;
  // The thread is made on first resume, so a queue nobody resumes costs none.
  startThreadLocked();
}

void SerialQueue::startThreadLocked() {
  if (threadStarted_) return;
  try {
    std::thread(run, self_.lock()).detach();
    threadStarted_ = true;
  } catch (const std::system_error&) {
    // Out of threads for now; the next post tries again.
  }
}

void SerialQueue::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  cv_.notify_one();
}

void SerialQueue::abandonIfSuspended() {
  std::deque<Task> dropped;
  {
    std::lock_guard lock(mutex_);
    if (resumed_) return;
    closed_ = true;
    dropped.swap(tasks_);
  }
  // Destroyed outside the lock: a task may hold the last reference to an
  // object whose destructor posts here.
}

bool SerialQueue::isCurrent() const { return tCurrent == this; }

void SerialQueue::run(std::shared_ptr<SerialQueue> self) {
  tCurrent = self.get();
  std::unique_lock lock(self->mutex_);
  for (;;) {
    self->cv_.wait(lock, [&] { return !self->tasks_.empty() || self->closed_; });
    if (self->tasks_.empty()) break;  // closed and drained
    Task task = std::move(self->tasks_.front());
    self->tasks_.pop_front();
    lock.unlock();
    task();
    // Whatever the task captured is released before the next one runs.
    task = nullptr;
    lock.lock();
  }
  tCurrent = nullptr;
}

}  // namespace ovix
