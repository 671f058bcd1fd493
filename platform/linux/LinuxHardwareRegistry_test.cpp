#include "platform/linux/LinuxHardwareRegistry.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

namespace fs = std::filesystem;
using testing::TempDirectory;

class HardwareRegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directory(vars); }
  std::string variable(const std::string& name) {
    return vars + "/" + name + "-" + LinuxHardwareRegistry::kVendorGuid;
  }

  TempDirectory root;
  std::string vars = root / "efivars";
  LinuxHardwareRegistry registry{vars, root.path()};
};

TEST_F(HardwareRegistryTest, OnlyTheOptionsNodeExistsAndOnlyWithItsFolder) {
  auto node = registry.lookUp("IODeviceTree:/options");
  ASSERT_TRUE(node);
  EXPECT_FALSE(registry.lookUp("IODeviceTree:/chosen"));
  EXPECT_FALSE(registry.setProperty(RegistryNode{"IODeviceTree:/chosen"}, "n", "v"));
  fs::remove(vars);
  std::ofstream(vars) << "a file where the folder should be";
  EXPECT_FALSE(registry.lookUp("IODeviceTree:/options"));
}

TEST_F(HardwareRegistryTest, PropertiesTakeStringsOrDataAndCommitsNeedTheVariable) {
  RegistryNode node = *registry.lookUp("IODeviceTree:/options");
  EXPECT_TRUE(registry.setProperty(node, "as-data", Value(Data{0x00, 0xff})));
  EXPECT_TRUE(fs::exists(variable("as-data")));
  EXPECT_EQ(fs::file_size(variable("as-data")), 6u);
  EXPECT_FALSE(registry.setProperty(node, "as-number", Value(1)));
  EXPECT_FALSE(fs::exists(variable("as-number")));

  EXPECT_TRUE(registry.setProperty(node, "IONVRAM-SYNCNOW-PROPERTY", "as-data"));
  EXPECT_FALSE(registry.setProperty(node, "IONVRAM-SYNCNOW-PROPERTY", "missing"));
  EXPECT_FALSE(registry.setProperty(node, "IONVRAM-SYNCNOW-PROPERTY", Value(Data{'a'})));
  EXPECT_FALSE(registry.setProperty(node, "IONVRAM-DELETE-PROPERTY", Value(Data{'a'})));
  // A folder under a variable's name is not a variable.
  fs::create_directory(variable("folder"));
  EXPECT_FALSE(registry.setProperty(node, "IONVRAM-SYNCNOW-PROPERTY", "folder"));
}

TEST_F(HardwareRegistryTest, VariablesOfOtherVendorsAreLeftAlone) {
  std::string foreign = vars + "/demo-mode-8be4df61-93ca-11d2-aa0d-00e098032b8c";
  std::ofstream(foreign) << "keep";
  RegistryNode node = *registry.lookUp("IODeviceTree:/options");
  EXPECT_TRUE(registry.setProperty(node, "demo-mode", "mine"));
  EXPECT_TRUE(registry.setProperty(node, "IONVRAM-DELETE-PROPERTY", "demo-mode"));
  EXPECT_EQ(fs::file_size(foreign), 4u);
}

TEST_F(HardwareRegistryTest, PartitionLookupOnlyProbesBlockDevicesInTheDeviceFolder) {
  std::ofstream(root / "disk0s1") << "a regular file, not a device";
  for (const char* name : {"disk0s1", "absent", "", ".", "..", "../dev/null", "efivars"})
    EXPECT_FALSE(registry.partitionUUIDForBSDName(name)) << name;
}

}  // namespace
}  // namespace platform
