#include "ovix/ClientQuota.h"

#include <gtest/gtest.h>

#include <vector>

namespace ovix {
namespace {

class ClientQuotaTest : public ::testing::Test {
 protected:
  std::shared_ptr<ClientQuota> quota =
      std::make_shared<ClientQuota>(ClientQuota::Limits{4, 6, 100, 150});
  std::vector<std::string> reports;
  void SetUp() override {
    quota->setReporter([this](const std::string& m) { reports.push_back(m); });
  }
};

TEST_F(ClientQuotaTest, ConnectionsAreCappedPerUidAndInTotalAndReportedOnce) {
  std::vector<std::unique_ptr<ClientQuota::Ticket>> held;
  for (int i = 0; i < 4; ++i) held.push_back(quota->admit(1000));
  for (const auto& t : held) ASSERT_NE(t, nullptr);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(quota->admit(1000), nullptr);
  EXPECT_EQ(reports, std::vector<std::string>{"Refusing connections from uid 1000: it has 4 open"});

  // One freed slot lets one more in; cycling at the cap logs nothing more.
  held.pop_back();
  held.push_back(quota->admit(1000));
  ASSERT_NE(held.back(), nullptr);
  EXPECT_EQ(quota->admit(1000), nullptr);
  EXPECT_EQ(reports.size(), 1u);

  // Other accounts fill the total; root is never counted nor refused.
  held.push_back(quota->admit(1001));
  held.push_back(quota->admit(1002));
  EXPECT_EQ(quota->admit(1003), nullptr);
  EXPECT_EQ(quota->admit(1004), nullptr);
  EXPECT_EQ(reports.back(), "Refusing connections: 6 are open");
  EXPECT_EQ(reports.size(), 2u);
  for (int i = 0; i < 100; ++i) EXPECT_NE(quota->admit(0), nullptr);

  // Closing a slot (the socket is gone) frees it even while the ticket lives.
  held[0]->closeSlot();
  held[0]->closeSlot();
  EXPECT_NE(quota->admit(1003), nullptr);
}

TEST_F(ClientQuotaTest, BytesAreGrantedUpToTheCapsAndComeBackWhenHandledOrClosed) {
  auto a = quota->admit(1000);
  auto b = quota->admit(1000);
  auto c = quota->admit(1001);
  EXPECT_EQ(a->take(60), 60u);
  EXPECT_EQ(b->take(60), 40u) << "the uid's cap is shared by its connections";
  EXPECT_EQ(b->take(1), 0u);
  EXPECT_EQ(c->take(100), 50u) << "the total cap";
  EXPECT_EQ(reports,
            std::vector<std::string>{"Pausing reads from uid 1000: it has 100 bytes waiting"});
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(b->take(5), 0u);
    EXPECT_EQ(c->take(5), 0u);
  }
  EXPECT_EQ(reports.size(), 2u) << "a paused reader is reported once";
  EXPECT_EQ(reports.back(), "Pausing reads: 150 bytes are waiting");

  a->give(60);
  EXPECT_EQ(b->take(100), 60u);
  // A ticket gives back what it holds when it goes; more than held is ignored.
  b->give(1000);
  a.reset();
  EXPECT_EQ(c->take(200), 50u) << "the uid's own cap again";
  auto root = quota->admit(0);
  EXPECT_EQ(root->take(1u << 30), 1u << 30);
}

}  // namespace
}  // namespace ovix
