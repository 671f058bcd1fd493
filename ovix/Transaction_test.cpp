#include "ovix/Transaction.h"

#include <gtest/gtest.h>

namespace ovix {
namespace {

TEST(OvixTransaction, CountsNestedWorkAndNeverGoesBelowIdle) {
  const std::int64_t idle = busyCount();
  {
    Transaction outer;
    {
      Transaction inner;
      EXPECT_EQ(busyCount(), idle + 2);
    }
    EXPECT_EQ(busyCount(), idle + 1);
  }
  EXPECT_EQ(busyCount(), idle);
  if (idle == 0) {
    transactionEnd();
    EXPECT_EQ(busyCount(), 0);
  }
}

}  // namespace
}  // namespace ovix
