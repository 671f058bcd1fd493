#include "manifest/QLXProgressUpdater.h"

#include <gtest/gtest.h>

#include "platform/testing/LogCapture.h"

namespace {

class QLXProgressUpdaterTest : public ::testing::Test {
 protected:
  std::vector<std::int64_t> sent;
  QLXProgressUpdater updater{[this](std::int64_t p) { sent.push_back(p); }};
};

TEST_F(QLXProgressUpdaterTest, SendsEachRisingPercentOnce) {
  platform::testing::LogCapture log;
  updater.initializePercentageWithTotal(1000);
  updater.updatePercentageWithIncrement(5);
  EXPECT_TRUE(sent.empty());
  updater.updatePercentageWithIncrement(5);
  updater.updatePercentageWithIncrement(990);
  EXPECT_EQ(sent, (std::vector<std::int64_t>{1, 100}));
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"Initializing percent with total 1000",
                                      "Percentage increased to 1", "Percentage increased to 100"}));
  EXPECT_EQ(updater.finished(), 1000);
  EXPECT_EQ(updater.reportedPercent(), 100);
}

TEST_F(QLXProgressUpdaterTest, TruncatesJumpsAndNeverGoesDown) {
  updater.initializePercentageWithTotal(200);
  updater.updatePercentageWithIncrement(1);  // 100/200 truncates to 0
  EXPECT_TRUE(sent.empty());
  updater.updatePercentageWithIncrement(5);  // 3
  updater.updatePercentageWithIncrement(1);  // 3 again: nothing
  updater.updatePercentageWithIncrement(8);  // 7: one message, not four
  updater.updatePercentageWithIncrement(-10);
  updater.updatePercentageWithIncrement(9);  // back to 7: nothing
  updater.updatePercentageWithIncrement(2);  // 8
  EXPECT_EQ(sent, (std::vector<std::int64_t>{3, 7, 8}));
  // Work beyond the total is still reported.
  updater.updatePercentageWithIncrement(284);
  EXPECT_EQ(sent.back(), 150);
}

TEST_F(QLXProgressUpdaterTest, InitializingStartsTheCountAgain) {
  updater.initializePercentageWithTotal(100);
  updater.updatePercentageWithIncrement(100);
  updater.initializePercentageWithTotal(100);
  EXPECT_EQ(updater.finished(), 0);
  EXPECT_EQ(updater.reportedPercent(), 0);
  updater.updatePercentageWithIncrement(1);
  EXPECT_EQ(sent, (std::vector<std::int64_t>{100, 1}));
}

TEST_F(QLXProgressUpdaterTest, ExtremeTotalsNeitherCrashNorSendNonsense) {
  updater.initializePercentageWithTotal(0);
  updater.updatePercentageWithIncrement(10);
  updater.updatePercentageWithIncrement(0);
  EXPECT_TRUE(sent.empty());
  EXPECT_EQ(updater.finished(), 10);

  // The product wraps in 64 bits and the quotient is cut to 32, as the
  // arithmetic is defined; -1 as a total must not trap.
  updater.initializePercentageWithTotal(-1);
  updater.updatePercentageWithIncrement(-1);
  EXPECT_EQ(sent, (std::vector<std::int64_t>{100}));
  updater.initializePercentageWithTotal(1);
  updater.updatePercentageWithIncrement(INT64_MAX / 50);  // x100 wraps to a negative
  EXPECT_EQ(sent.size(), 1u);
  updater.initializePercentageWithTotal(1);
  updater.updatePercentageWithIncrement(0x100000001LL);  // 100 x that, cut to 32 bits
  EXPECT_EQ(sent.back(), 100);
}

TEST(QLXProgressUpdaterSharedTest, OneInstanceSilentUntilBound) {
  QLXProgressUpdater& shared = QLXProgressUpdater::sharedInstance();
  EXPECT_EQ(&shared, &QLXProgressUpdater::sharedInstance());
  shared.initializePercentageWithTotal(10);
  shared.updatePercentageWithIncrement(10);
  EXPECT_EQ(shared.reportedPercent(), 100);
  std::vector<std::int64_t> got;
  shared.setSender([&](std::int64_t p) { got.push_back(p); });
  shared.initializePercentageWithTotal(10);
  shared.updatePercentageWithIncrement(5);
  shared.setSender(nullptr);
  EXPECT_EQ(got, (std::vector<std::int64_t>{50}));
}

}  // namespace
