#include "platform/linux/LinuxDeviceProperties.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>

#include "platform/testing/Commands.h"
#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

constexpr const char* kSecureBoot = "SecureBoot-8be4df61-93ca-11d2-aa0d-00e098032b8c";

class DevicePropertiesTest : public ::testing::Test {
 protected:
  // Writes the variable file the way the EFI variable file system shows it.
  void writeVariable(std::vector<std::uint8_t> bytes) {
    std::ofstream out(scratch / kSecureBoot, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
  }

  std::optional<Value> fuse() {
    LinuxDeviceProperties properties({.efiVariables = scratch.path()});
    return properties.copyAnswer("SigningFuse");
  }

  testing::TempDirectory scratch;
};

TEST_F(DevicePropertiesTest, SigningFuseReadsTheSecureBootByte) {
  EXPECT_FALSE(fuse().has_value());  // no variable: no answer

  writeVariable({0x06, 0, 0, 0, 1});
  ASSERT_TRUE(fuse().has_value());
  EXPECT_TRUE(fuse()->isBoolean());
  EXPECT_TRUE(fuse()->boolValue());

  writeVariable({0x06, 0, 0, 0, 0});
  ASSERT_TRUE(fuse().has_value());
  EXPECT_TRUE(fuse()->isBoolean());
  EXPECT_FALSE(fuse()->boolValue());
}

TEST_F(DevicePropertiesTest, MalformedVariableIsNoAnswer) {
  // A value the firmware never writes must not open the development path.
  for (const std::vector<std::uint8_t>& bytes : std::vector<std::vector<std::uint8_t>>{
           {}, {0x06, 0, 0, 0}, {0x06, 0, 0, 0, 2}, {0x06, 0, 0, 0, 0, 0}, {0}}) {
    writeVariable(bytes);
    EXPECT_FALSE(fuse().has_value()) << bytes.size() << " bytes";
  }
}

TEST_F(DevicePropertiesTest, DiskUsageAgreesWithStat) {
  LinuxDeviceProperties properties({.dataVolume = scratch.path()});
  std::optional<Value> usage = properties.copyAnswer("DiskUsage");
  ASSERT_TRUE(usage.has_value());
  ASSERT_TRUE(usage->isDictionary());
  const Value* available = usage->dictionary()->find("TotalDataAvailable");
  const Value* capacity = usage->dictionary()->find("TotalDataCapacity");
  ASSERT_TRUE(available && available->isInteger());
  ASSERT_TRUE(capacity && capacity->isInteger());

  // The stat command's block size and counts, read independently.
  std::string command = "stat -f -c '%S %b %a' " + scratch.path();
  unsigned long long blockSize = 0, blocks = 0, free = 0;
  ASSERT_EQ(
      std::sscanf(testing::run(command).c_str(), "%llu %llu %llu", &blockSize, &blocks, &free), 3);
  EXPECT_EQ(capacity->uint64Value(), blocks * blockSize);
  // Free space moves while other programs run; a few MiB of slack suffices.
  double expected = static_cast<double>(free * blockSize);
  EXPECT_NEAR(static_cast<double>(available->uint64Value()), expected, 64.0 * 1024 * 1024);
  EXPECT_LE(available->uint64Value(), capacity->uint64Value());
}

TEST_F(DevicePropertiesTest, UnknownQuestionsAndMissingVolumeHaveNoAnswer) {
  LinuxDeviceProperties properties(
      {.efiVariables = scratch.path(), .dataVolume = scratch.path() + "/absent"});
  EXPECT_FALSE(properties.copyAnswer("DiskUsage").has_value());
  EXPECT_FALSE(properties.copyAnswer("SerialNumber").has_value());
  EXPECT_FALSE(properties.copyAnswer("").has_value());
}

}  // namespace
}  // namespace platform
