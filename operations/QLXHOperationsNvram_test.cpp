#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "operations/QLXHOperations.h"
#include "platform/Platform.h"
#include "platform/linux/LinuxHardwareRegistry.h"
#include "platform/testing/CapturedStderr.h"
#include "platform/testing/Commands.h"
#include "platform/testing/ForwardingHardwareRegistry.h"
#include "platform/testing/RecordingProcess.h"
#include "platform/testing/TempDirectory.h"
#include "vexd_helper/QLXHMessageResponder.h"

namespace {

using platform::Data;
using platform::Dictionary;
using platform::LinuxHardwareRegistry;
using platform::Value;
using platform::testing::capturedStderr;
using platform::testing::TempDirectory;
namespace fs = std::filesystem;

Data readBytes(const std::string& path) {
  return platform::testing::bytesOf(platform::testing::contentsOf(path));
}

// Lets everything through but the commit of a written variable.
class RefusingCommit : public platform::testing::ForwardingHardwareRegistry {
 public:
  using ForwardingHardwareRegistry::ForwardingHardwareRegistry;
  platform::Status setProperty(const platform::RegistryNode& node, const std::string& name,
                               const Value& value) override {
    if (name == "IONVRAM-SYNCNOW-PROPERTY") return platform::Error::posix(EIO, name);
    return inner_.setProperty(node, name, value);
  }
};

// An emulated variable folder on tmpfs, which like efivarfs keeps the
// immutable flag.
class NvramTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directory(vars); }
  std::string variable(const std::string& name) {
    return vars + "/" + name + "-" + LinuxHardwareRegistry::kVendorGuid;
  }
  static Data stored(const std::string& text) {
    Data d(4 + text.size(), 0);
    d[0] = 0x07;
    std::copy(text.begin(), text.end(), d.begin() + 4);
    return d;
  }

  TempDirectory root{fs::is_directory("/dev/shm") ? "/dev/shm" : "/tmp"};
  std::string vars = root / "efivars";
  LinuxHardwareRegistry registry{vars};
  platform::testing::RecordingProcess process;
  platform::Platform bundle{.process = &process, .hardwareRegistry = &registry};
  QLXHOperations operations{bundle};
};

TEST_F(NvramTest, WriteStoresTheAttributeWordThenTheUtf8Value) {
  std::string log = capturedStderr([&] {
    EXPECT_TRUE(operations.writeNVRam("demo-mode", "on \xe2\x9c\x93"));
    EXPECT_TRUE(operations.writeNVRam("empty", ""));
    EXPECT_TRUE(operations.writeNVRam("demo-mode", "x"));  // shorter than before
  });
  EXPECT_EQ(log, "");
  EXPECT_EQ(readBytes(variable("demo-mode")), stored("x"));
  EXPECT_EQ(readBytes(variable("empty")), stored(""));
  EXPECT_EQ(readBytes(variable("empty")).size(), 4u);
}

TEST_F(NvramTest, ImmutableVariablesAreRewrittenAndDeleted) {
  ASSERT_TRUE(operations.writeNVRam("locked", "first"));
  if (!TempDirectory::setImmutable(variable("locked"), true))
    GTEST_SKIP() << "no inode flags under " << vars;
  ASSERT_FALSE(std::ofstream(variable("locked"), std::ios::app) << "x" << std::flush);

  EXPECT_TRUE(operations.writeNVRam("locked", "second"));
  EXPECT_EQ(readBytes(variable("locked")), stored("second"));
  ASSERT_TRUE(TempDirectory::setImmutable(variable("locked"), true));
  EXPECT_TRUE(operations.deleteNvram("locked"));
  EXPECT_FALSE(fs::exists(variable("locked")));
}

TEST_F(NvramTest, DeleteRemovesTheVariableAndToleratesAnAbsentOne) {
  ASSERT_TRUE(operations.writeNVRam("gone", "soon"));
  ASSERT_TRUE(operations.writeNVRam("kept", "here"));
  EXPECT_TRUE(operations.deleteNvram("gone"));
  EXPECT_FALSE(fs::exists(variable("gone")));
  EXPECT_TRUE(fs::exists(variable("kept")));
  EXPECT_TRUE(operations.deleteNvram("never-written"));
}

TEST_F(NvramTest, NamesThatWouldLeaveTheFolderOrThatFirmwareCannotHoldAreRefused) {
  // Bait beside the folder, where "../x" would land.
  std::string outside = root / (std::string("x-") + LinuxHardwareRegistry::kVendorGuid);
  std::ofstream(outside) << "untouched";
  std::vector<std::string> refused = {"../x",
                                      "a/b",
                                      "",
                                      "/",
                                      std::string("nul\0name", 8),
                                      std::string(219, 'n'),
                                      "emoji \xf0\x9f\x98\x80",
                                      "bad \xff utf-8"};
  for (const std::string& name : refused) {
    std::string log = capturedStderr([&] {
      EXPECT_FALSE(operations.writeNVRam(name, "v")) << name;
      EXPECT_FALSE(operations.deleteNvram(name)) << name;
    });
    EXPECT_EQ(log, "Couldn't write nvram\nCouldn't force sync new nvram to device\n") << name;
  }
  EXPECT_TRUE(fs::is_empty(vars));
  EXPECT_EQ(readBytes(outside), Data({'u', 'n', 't', 'o', 'u', 'c', 'h', 'e', 'd'}));
  EXPECT_EQ(std::distance(fs::directory_iterator(root.path()), {}), 2);

  // The longest name a file name leaves room for still fits.
  EXPECT_TRUE(operations.writeNVRam(std::string(218, 'n'), "v"));
}

TEST_F(NvramTest, ValuesOtherThanTextFailTheWrite) {
  std::string log = capturedStderr([&] {
    EXPECT_FALSE(operations.writeNVRam("n", Value()));
    EXPECT_FALSE(operations.writeNVRam("n", 1));
    EXPECT_FALSE(operations.writeNVRam(Value(), "v"));
    EXPECT_FALSE(operations.deleteNvram(Value(true)));
  });
  EXPECT_EQ(log,
            "Couldn't write nvram\nCouldn't write nvram\nCouldn't write nvram\n"
            "Couldn't force sync new nvram to device\n");
  EXPECT_TRUE(fs::is_empty(vars));
}

TEST_F(NvramTest, ARefusedCommitFailsTheWriteAfterTheValueWasSet) {
  RefusingCommit refusing(registry);
  bundle.hardwareRegistry = &refusing;
  std::string log = capturedStderr([&] { EXPECT_FALSE(operations.writeNVRam("staged", "value")); });
  EXPECT_EQ(log, "Couldn't force sync new nvram to device\n");
  EXPECT_EQ(readBytes(variable("staged")), stored("value"));
}

TEST_F(NvramTest, WithoutTheVariableFolderOrARegistryNothingIsWritten) {
  fs::remove(vars);
  std::string log = capturedStderr([&] {
    EXPECT_FALSE(operations.writeNVRam("n", "v"));
    EXPECT_FALSE(operations.deleteNvram("n"));
  });
  EXPECT_EQ(log,
            "Couldn't locate options node in IODeviceTree\n"
            "Couldn't locate options node in IODeviceTree\n");
  EXPECT_FALSE(fs::exists(vars));

  bundle.hardwareRegistry = nullptr;
  log = capturedStderr([&] { EXPECT_FALSE(operations.deleteNvram("n")); });
  EXPECT_EQ(log, "Couldn't locate bootstrap_port mach port\n");
  fs::create_directory(vars);
}

// The handlers reach the process-wide operations object, which is made
// from the shared platform bundle.
class NvramHandlersTest : public NvramTest {
 protected:
  void SetUp() override {
    NvramTest::SetUp();
    platform::shared().hardwareRegistry = &registry;
    platform::shared().process = &process;
  }
  void TearDown() override {
    platform::shared().hardwareRegistry = nullptr;
    platform::shared().process = nullptr;
    NvramTest::TearDown();
  }
  QLXHMessageResponder responder;
};

TEST_F(NvramHandlersTest, WriteAndDeleteRequestsUnpackTheirParameters) {
  std::string log = capturedStderr([&] {
    EXPECT_TRUE(responder.writeNvram(Value(Dictionary{{"Name", "boot-args"}, {"Value", "-v"}})));
  });
  EXPECT_EQ(log,
            "Entering -[QLXHMessageResponder writeNvram:] with parameter: {\n"
            "    Name = boot-args;\n    Value = -v;\n}\n");
  EXPECT_EQ(readBytes(variable("boot-args")), stored("-v"));

  log = capturedStderr([&] { EXPECT_TRUE(responder.deleteNvram(Value("boot-args"))); });
  EXPECT_EQ(log, "Entering -[QLXHMessageResponder deleteNvram:] with parameter: boot-args\n");
  EXPECT_FALSE(fs::exists(variable("boot-args")));

  // Absent keys reach the operation as absent values.
  log = capturedStderr([&] {
    EXPECT_FALSE(responder.writeNvram(Value(Dictionary{{"Name", "n"}})));
    EXPECT_FALSE(responder.writeNvram(Value("not a dictionary")));
  });
  EXPECT_EQ(log,
            "Entering -[QLXHMessageResponder writeNvram:] with parameter: {\n    Name = n;\n}\n"
            "Couldn't write nvram\n"
            "Entering -[QLXHMessageResponder writeNvram:] with parameter: not a dictionary\n"
            "Couldn't write nvram\n");
}

TEST_F(NvramHandlersTest, RebootFailsWhenTheRestartReturns) {
  std::string log = capturedStderr([&] { EXPECT_FALSE(responder.reboot(Value(1))); });
  EXPECT_EQ(log, "Entering -[QLXHMessageResponder reboot:] with parameter: 1\n");
  EXPECT_EQ(process.reboots.load(), 1);
}

TEST_F(NvramHandlersTest, QuitEndsTheProcessWithStatusZero) {
  EXPECT_EXIT(responder.quitHelper(Value("now")), ::testing::ExitedWithCode(0),
              "Entering -\\[QLXHMessageResponder quitHelper:\\] with parameter: now");
}

}  // namespace
