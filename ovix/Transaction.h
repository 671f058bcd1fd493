// Transactions: a process-wide count of work in progress, so the process
// can tell whether it is busy (for example while a long request runs).
#pragma once

#include <cstdint>

namespace ovix {

void transactionBegin();
void transactionEnd();
std::int64_t busyCount();

// Holds the process busy for its lifetime.
class Transaction {
 public:
  Transaction() { transactionBegin(); }
  ~Transaction() { transactionEnd(); }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
};

}  // namespace ovix
