#include "ovix/Transaction.h"

#include <atomic>

namespace ovix {

namespace {
std::atomic<std::int64_t> gBusy{0};
}

void transactionBegin() { gBusy.fetch_add(1, std::memory_order_relaxed); }

void transactionEnd() {
  // An unmatched end must not make the process look busier than idle.
  std::int64_t n = gBusy.load(std::memory_order_relaxed);
  while (n > 0 && !gBusy.compare_exchange_weak(n, n - 1, std::memory_order_relaxed)) {
  }
}

std::int64_t busyCount() { return gBusy.load(std::memory_order_relaxed); }

}  // namespace ovix
