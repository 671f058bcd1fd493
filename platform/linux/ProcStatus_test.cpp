#include "platform/linux/ProcStatus.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(ProcStatus, ReadsTheFieldsTheKernelWrites) {
  const std::string status = "Name:\tbash\nPid:\t1234\nGroups:\t4 24 27 501 \nNgid:\t0\n";
  EXPECT_EQ(procStatusField(status, "Name"), "\tbash");
  EXPECT_EQ(procStatusPid(status), 1234);
  EXPECT_EQ(procStatusGroups(status), (std::vector<std::uint32_t>{4, 24, 27, 501}));
  EXPECT_EQ(procStatusGroups("Groups:\t\n"), std::vector<std::uint32_t>{});
  EXPECT_EQ(procStatusPid("pos:\t0\nPid:\t-1\n"), -1);
  // A field name inside another line's value is not a field.
  EXPECT_EQ(procStatusPid("Name:\tPid:7\n"), std::nullopt);
  EXPECT_EQ(procStatusGroups("Name:\tx\n"), std::nullopt);
}

TEST(ProcStatus, GroupsThatWouldWrapAreRefusedNotCut) {
  // Read leniently, "-1" and 2^32 + 4 would name groups 4294967295 and 4.
  EXPECT_EQ(procStatusGroups("Groups:\t-1\n"), std::nullopt);
  EXPECT_EQ(procStatusGroups("Groups:\t4294967300\n"), std::nullopt);
  EXPECT_EQ(procStatusGroups("Groups:\t4294967295\n"), std::vector<std::uint32_t>{4294967295u});
  EXPECT_EQ(procStatusGroups("Groups:\t4 x\n"), std::nullopt);
}

}  // namespace
}  // namespace platform
