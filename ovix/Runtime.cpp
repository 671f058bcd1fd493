#include "ovix/Runtime.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>

#include "ovix/ConnectionCore.h"
#include "ovix/ListenerCore.h"

namespace ovix {

namespace {

std::atomic<Runtime*> gRuntime{nullptr};

// A forked child has none of the parent's threads; it starts from a fresh
// runtime (the old one is left as it was, its lock possibly held), and with
// no thread taking SIGTERM, SIGTERM gets its usual effect back.
void resetInChild() {
  gRuntime.store(new Runtime);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace

Runtime& Runtime::instance() {
  static std::once_flag once;
  std::call_once(once, [] {
    gRuntime.store(new Runtime);
    ::pthread_atfork(nullptr, nullptr, resetInChild);
  });
  return *gRuntime.load();
}

void Runtime::watchTermination() {
  std::lock_guard lock(mutex_);
  if (watching_) return;
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
  try {
    std::thread(signalLoop, this).detach();
    watching_ = true;
  } catch (const std::system_error&) {
    // The next listener tries again; until then SIGTERM stays pending.
  }
}

void Runtime::add(const std::shared_ptr<ListenerCore>& listener) {
  std::lock_guard lock(mutex_);
  prune(listeners_);
  listeners_.push_back(listener);
}

void Runtime::add(const std::shared_ptr<ConnectionCore>& connection) {
  std::lock_guard lock(mutex_);
  prune(connections_);
  connections_.push_back(connection);
}

template <class T>
void Runtime::prune(std::vector<std::weak_ptr<T>>& list) {
  // Sweeping only when the size reaches a power of two keeps the cost of
  // registering linear overall.
  if (list.size() < 16 || (list.size() & (list.size() - 1)) != 0) return;
  std::erase_if(list, [](const std::weak_ptr<T>& w) { return w.expired(); });
}

void Runtime::signalLoop(Runtime* self) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  for (;;) {
    int sig = 0;
    if (::sigwait(&set, &sig) != 0 || sig != SIGTERM) continue;
    if (self->deliverTermination()) continue;
    // Nothing left to tell: end the way SIGTERM ends any process.
    ::signal(SIGTERM, SIG_DFL);
    ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    ::raise(SIGTERM);
  }
}

bool Runtime::deliverTermination() {
  std::vector<std::shared_ptr<ListenerCore>> listeners;
  std::vector<std::shared_ptr<ConnectionCore>> connections;
  {
    std::lock_guard lock(mutex_);
    for (auto& w : listeners_) {
      if (auto l = w.lock()) listeners.push_back(std::move(l));
    }
    for (auto& w : connections_) {
      if (auto c = w.lock()) connections.push_back(std::move(c));
    }
  }
  bool told = false;
  for (auto& l : listeners) told |= l->postTerminationImminent();
  for (auto& c : connections) told |= c->postTerminationImminent();
  return told;
}

}  // namespace ovix
