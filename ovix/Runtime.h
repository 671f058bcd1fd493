// Process-wide state of the IPC runtime: the thread that takes SIGTERM and
// tells every listener and service-side connection that termination is
// imminent. Signals are taken with sigwait on a thread of their own, never in
// an asynchronous handler, so delivery is ordinary queued work.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

namespace ovix {

class ConnectionCore;
class ListenerCore;

class Runtime {
 public:
  static Runtime& instance();

  // Blocks SIGTERM in the calling thread (threads made later inherit that)
  // and starts the signal thread, once per process.
  void watchTermination();

  void add(const std::shared_ptr<ListenerCore>& listener);
  void add(const std::shared_ptr<ConnectionCore>& connection);

 private:
  static void signalLoop(Runtime* self);
  // True when someone was told; otherwise SIGTERM keeps its usual effect.
  bool deliverTermination();
  template <class T>
  static void prune(std::vector<std::weak_ptr<T>>& list);

  std::mutex mutex_;
  bool watching_ = false;
  std::vector<std::weak_ptr<ListenerCore>> listeners_;
  std::vector<std::weak_ptr<ConnectionCore>> connections_;
};

}  // namespace ovix
