#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include "manifest/QLXManifest.h"
#include "operations/QLXHOperations.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/testing/Commands.h"
#include "platform/testing/ForwardingFileSystem.h"
#include "platform/testing/LogCapture.h"
#include "platform/testing/TempDirectory.h"
#include "platform/testing/TestContentSigners.h"
#include "vexd_helper/QLXHMessageResponder.h"

namespace {

using platform::Dictionary;
using platform::Value;
using platform::testing::LogCapture;
using platform::testing::run;
using platform::testing::TempDirectory;
using platform::testing::TestContentSigners;
namespace fs = std::filesystem;

constexpr uid_t kOwner = 4242;
constexpr gid_t kGroup = 4343;
constexpr const char* kOrigin = "user.velmor.origin";
const timespec kRecordedTime{1709209800, 0};  // 2024-02-29 12:30:00 UTC

// Owners, modes, mtimes and user xattrs of a tree as stat and getfattr see them.
std::string snapshot(const std::string& root) {
  return run("cd '" + root + "' && find . -exec stat -c '%n %u:%g %a %Y' {} + | sort && " +
             "getfattr -R -h -d -m '^user\\.' . 2>/dev/null");
}

void setRecorded(const std::string& path, mode_t mode) {
  ASSERT_EQ(::lchown(path.c_str(), kOwner, kGroup), 0) << path;
  if (fs::is_symlink(path)) return;
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
  ASSERT_EQ(::setxattr(path.c_str(), kOrigin, "store", 5, 0), 0) << path;
  const timespec times[2] = {kRecordedTime, kRecordedTime};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// Gives every object under root (root included) wrong owners, modes, mtimes
// and xattr values.
void scramble(const std::string& root) {
  std::vector<std::string> paths{root};
  for (const auto& entry : fs::recursive_directory_iterator(root)) paths.push_back(entry.path());
  for (const std::string& path : paths) {
    ASSERT_EQ(::lchown(path.c_str(), 0, 0), 0);
    if (fs::is_symlink(path)) continue;
    ASSERT_EQ(::chmod(path.c_str(), 0707), 0);
    ASSERT_EQ(::setxattr(path.c_str(), kOrigin, "tampered", 8, 0), 0);
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), nullptr, 0), 0);
  }
}

class RestoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(signers.ok());
    signers.platform.fileSystem = &fileSystem;
    staging = dir.mkdir("staging");
    // Backup content, an app's data container and a group container.
    stageFolder("staging", 0750);
    stageFile("staging/Info.plist", 0640);
    stageFolder("staging/Data", 0700);
    stageFile("staging/Data/level.dat", 0600);
    ASSERT_EQ(::symlink("level.dat", (dir / "staging/Data/current").c_str()), 0);
    setRecorded(dir / "staging/Data/current", 0);
    stageFolder("staging/app", 0755);
    stageFile("staging/app/Library/Preferences/demo.plist", 0644);
    stageFolder("staging/app/Library", 0711);
    stageFolder("staging/app/Library/Preferences", 0700);
    stageFolder("staging/group", 0770);
    stageFile("staging/group/shared.db", 0660);

    backup = record(staging);
    app = record(dir / "staging/app");
    group = record(dir / "staging/group");
    recorded = snapshot(staging);
    recordedApp = snapshot(dir / "staging/app");
    recordedGroup = snapshot(dir / "staging/group");
  }

  void stageFile(const std::string& name, mode_t mode) { setRecorded(dir.write(name, name), mode); }
  void stageFolder(const std::string& name, mode_t mode) {
    fs::create_directories(dir / name);
    setRecorded(dir / name, mode);
  }
  // What the manifest builder records for a tree, its root included.
  Dictionary record(const std::string& root) {
    QLXManifest manifest(signers.platform);
    LogCapture quiet;
    EXPECT_TRUE(manifest.addFilesFromPath(root, root, {}, true));
    return manifest.dict();
  }

  // Signs a payload with the given lists and writes it where the request
  // will name it.
  std::string sign(const Value& backupList, Dictionary appData = {}, Dictionary groupData = {},
                   Dictionary extensionData = {}) {
    Dictionary payload = TestContentSigners::samplePayload();
    payload.set("Backup", backupList);
    payload.set("AppData", Value(std::move(appData)));
    payload.set("GroupData", Value(std::move(groupData)));
    payload.set("ExtensionData", Value(std::move(extensionData)));
    Dictionary outer = signers.productionEnvelope(TestContentSigners::encode(payload));
    return signers.pki.writeFile(dir / "content.signed", TestContentSigners::encode(outer));
  }
  std::string signContainers() {
    return sign(backup,
                {{"com.example.app", Value(Dictionary{{"Manifest", Value(app)}})},
                 {"com.example.bare", Value(Dictionary{{"Container", Value("x")}})}},
                {{"group.com.example", Value(group)}}, {{"com.example.app.widget", Value(group)}});
  }

  bool restore(const std::string& root, const Value& manifestPath, const Value& type = Value(),
               const Value& identifier = Value()) {
    LogCapture capture;
    bool result = operations.restoreAttributesUnder(Value(root), manifestPath, type, identifier);
    logged = capture.messages();
    return result;
  }
  std::string lastLogged() const { return logged.empty() ? "" : logged.back(); }

  TestContentSigners signers;
  platform::LinuxFileSystem fileSystem;
  QLXHOperations operations{signers.platform};
  TempDirectory dir;
  std::string staging;
  Dictionary backup, app, group;
  std::string recorded, recordedApp, recordedGroup;  // as stat and getfattr saw them
  std::vector<std::string> logged;
};

// What a restore gives back.

TEST_F(RestoreTest, RequestRestoresTheBackupListEndToEnd) {
  std::string manifestPath = sign(Value(backup));
  scramble(staging);
  std::string scrambled = snapshot(staging);
  ASSERT_NE(scrambled, recorded);

  platform::Platform& shared = platform::shared();
  platform::Platform saved = shared;
  shared = signers.platform;
  Dictionary parameter{{"StagingRootPath", Value(staging)}, {"ManifestPath", Value(manifestPath)}};
  LogCapture capture;
  bool passed = QLXHMessageResponder().restoreAttributes(Value(parameter));
  shared = saved;

  EXPECT_TRUE(passed) << capture.messages().back();
  EXPECT_EQ(snapshot(staging), recorded);
  std::vector<std::string> messages = capture.messages();
  ASSERT_GE(messages.size(), 3u);
  EXPECT_EQ(messages[0], "Entering -[QLXHMessageResponder restoreAttributes:] with parameter: " +
                             Value(parameter).description());
  EXPECT_EQ(messages[1], "Loading signed manifest.");
  EXPECT_EQ(messages.back(), "Manifest passed signature check.");
}

TEST_F(RestoreTest, ContainerTypesPickTheirOwnFileLists) {
  std::string manifestPath = signContainers();
  std::string appRoot = dir / "staging/app", groupRoot = dir / "staging/group";

  // An app's list sits under "Manifest" of its container record.
  scramble(staging);
  std::string groupScrambled = snapshot(groupRoot);
  ASSERT_TRUE(restore(appRoot, Value(manifestPath), Value("AppData"), Value("com.example.app")))
      << lastLogged();
  EXPECT_EQ(snapshot(appRoot), recordedApp);
  EXPECT_EQ(snapshot(groupRoot), groupScrambled);  // another container is left alone

  // A group's and an extension's entry is the list itself.
  for (auto [type, id] : {std::pair{"GroupData", "group.com.example"},
                          std::pair{"ExtensionData", "com.example.app.widget"}}) {
    scramble(groupRoot);
    ASSERT_TRUE(restore(groupRoot, Value(manifestPath), Value(type), Value(id))) << lastLogged();
    EXPECT_EQ(snapshot(groupRoot), recordedGroup) << type;
  }

  // A type without an identifier, or none at all, means the "Backup" list.
  for (const Value& type : {Value("AppData"), Value()}) {
    scramble(staging);
    ASSERT_TRUE(restore(staging, Value(manifestPath), type, Value())) << lastLogged();
    EXPECT_EQ(snapshot(staging), recorded);
  }
}

// Where a restore stops.

TEST_F(RestoreTest, UnknownContainersFailBeforeAnyFileIsTouched) {
  std::string manifestPath = signContainers();
  scramble(staging);
  std::string scrambled = snapshot(staging);
  struct Case {
    Value type, identifier;
    std::string message;
  } cases[] = {
      {"AppData", "com.example.none", "Couldn't load container data for AppData/com.example.none"},
      {"AppData", 7, "Couldn't load container data for AppData/7"},
      {"AppData", "com.example.bare", "Couldn't load manifest dict for AppData/com.example.bare"},
      {"GroupData", "group.none", "Couldn't load manifest dict for GroupData/group.none"},
      // Group and extension lists are told apart by type, not by identifier.
      {"ExtensionData", "group.com.example",
       "Couldn't load manifest dict for ExtensionData/group.com.example"},
      {"PhotoData", "com.example.app", "Couldn't load manifest dict for PhotoData/com.example.app"},
      {"appdata", "com.example.app", "Couldn't load manifest dict for appdata/com.example.app"},
  };
  for (const Case& c : cases) {
    EXPECT_FALSE(restore(staging, Value(manifestPath), c.type, c.identifier));
    EXPECT_EQ(lastLogged(), c.message);
  }
  EXPECT_FALSE(restore(staging, Value(sign(Value("not a list")))));
  EXPECT_EQ(lastLogged(), "Couldn't get manifest.");
  EXPECT_EQ(snapshot(staging), scrambled);
}

TEST_F(RestoreTest, FirstFailingFileStopsTheWalkWithItsOwnMessage) {
  // Sorted between "/Data/level.dat" and "/Info.plist", and not staged.
  Dictionary list = backup;
  list.set("/Data/zz-missing", *backup.find("/Data/level.dat"));
  std::string manifestPath = sign(Value(list));
  scramble(staging);
  EXPECT_FALSE(restore(staging, Value(manifestPath)));
  EXPECT_TRUE(lastLogged().starts_with("Could not set file attributs at " + staging +
                                       "/Data/zz-missing with error - "))
      << lastLogged();
  // Files before it keep what was restored, files after it are untouched.
  EXPECT_EQ(run("stat -c '%u %a' " + dir / "staging/Data/level.dat"), "4242 600\n");
  EXPECT_EQ(run("stat -c '%u %a' " + dir / "staging/Info.plist"), "0 707\n");
}

TEST_F(RestoreTest, ManifestThatCannotBeReadOrTrustedTouchesNothing) {
  scramble(staging);
  std::string scrambled = snapshot(staging);
  for (const Value& path : {Value(dir / "absent.signed"), Value(staging), Value(5), Value()}) {
    EXPECT_FALSE(restore(staging, path));
    EXPECT_EQ(logged,
              (std::vector<std::string>{"Loading signed manifest.", "Cannot open manifest file."}));
  }

  platform::testing::Identity stranger = signers.pki.makeRoot("stranger");
  platform::testing::Identity strangerSigner = signers.pki.makeIssued("stranger-signer", stranger);
  ASSERT_TRUE(signers.ok());
  Dictionary payload = TestContentSigners::samplePayload();
  payload.set("Backup", Value(backup));
  platform::Data bytes = TestContentSigners::encode(payload);
  std::string untrusted = signers.pki.writeFile(
      dir / "untrusted.signed", TestContentSigners::encode(signers.envelope(
                                    bytes, strangerSigner, {strangerSigner, stranger})));
  EXPECT_FALSE(restore(staging, Value(untrusted)));
  EXPECT_EQ(lastLogged(), "-[QLXSignedManifest verifyManifestSignature:]: Certificate not valid.");
  EXPECT_EQ(snapshot(staging), scrambled);
}

TEST_F(RestoreTest, StagedLinksAndClimbingPathsAreNotFollowed) {
  std::string victim = dir.write("victim/level.dat", "keep");
  ASSERT_EQ(::chmod(victim.c_str(), 0600), 0);
  std::string victimBefore = snapshot(dir / "victim");
  std::string manifestPath = sign(Value(backup));
  fs::remove_all(dir / "staging/Data");
  ASSERT_EQ(::symlink((dir / "victim").c_str(), (dir / "staging/Data").c_str()), 0);
  EXPECT_FALSE(restore(staging, Value(manifestPath)));
  EXPECT_EQ(lastLogged(),
            "Refusing to restore /Data/current: " + staging + "/Data is not a real folder");
  EXPECT_EQ(snapshot(dir / "victim"), victimBefore);

  for (const char* climbing : {"/../victim/level.dat", "/.."}) {
    Dictionary list{{climbing, *backup.find("/Info.plist")}};
    EXPECT_FALSE(restore(staging, Value(sign(Value(list)))));
    EXPECT_EQ(lastLogged(),
              std::string("Refusing to restore ") + climbing + ": \"..\" leaves the staging root");
  }
  EXPECT_EQ(snapshot(dir / "victim"), victimBefore);
}

// A file system that runs `then` once, right after answering for `path`: an
// unprivileged client's swap landing between the check and the change.
struct SwapAfterCheck : platform::testing::ForwardingFileSystem {
  using ForwardingFileSystem::ForwardingFileSystem;
  platform::Result<Dictionary> attributesOfItem(const std::string& p) override {
    auto answer = inner().attributesOfItem(p);
    if (p == path && then) std::exchange(then, nullptr)();
    return answer;
  }
  std::string path;
  std::function<void()> then;
};

TEST_F(RestoreTest, SwapsAfterTheCheckRedirectNothing) {
  std::string victim = dir.write("victim/level.dat", "keep");
  ASSERT_EQ(::chmod(victim.c_str(), 0600), 0);
  std::string victimBefore = snapshot(dir / "victim");
  std::string manifestPath = sign(Value(backup));
  SwapAfterCheck swapping(fileSystem);
  signers.platform.fileSystem = &swapping;
  auto swapForLink = [&](const std::string& path) {
    fs::rename(path, path + ".real");
    fs::create_directory_symlink(dir / "victim", path);
  };

  // A folder found real, then replaced: the files below it are refused.
  scramble(staging);
  swapping.path = dir / "staging/Data";
  swapping.then = [&] { swapForLink(dir / "staging/Data"); };
  EXPECT_FALSE(restore(staging, Value(manifestPath)));
  EXPECT_TRUE(lastLogged().starts_with("Could not set file attributs at " + staging +
                                       "/Data/level.dat with error - " + std::strerror(ELOOP)))
      << lastLogged();
  EXPECT_EQ(snapshot(dir / "victim"), victimBefore);
  fs::remove(dir / "staging/Data");
  fs::rename(dir / "staging/Data.real", dir / "staging/Data");

  // The staging folder itself, replaced once checked: the restore goes on in
  // the folder it held from the start.
  scramble(staging);
  swapping.path = staging;
  swapping.then = [&] { swapForLink(staging); };
  EXPECT_TRUE(restore(staging, Value(manifestPath))) << lastLogged();
  EXPECT_EQ(snapshot(staging + ".real"), recorded);
  EXPECT_EQ(snapshot(dir / "victim"), victimBefore);

  // A staging folder that is a link from the start is refused.
  EXPECT_FALSE(restore(staging, Value(manifestPath)));
  EXPECT_EQ(lastLogged(), "Refusing to restore /: " + staging + " is not a real folder");
  EXPECT_EQ(snapshot(dir / "victim"), victimBefore);
}

TEST_F(RestoreTest, MalformedEntriesAndRootsFail) {
  EXPECT_FALSE(restore(staging, Value(sign(Value(Dictionary{{"/Info.plist", Value("record")}})))));
  EXPECT_EQ(lastLogged(), "The manifest entry for /Info.plist is not a file record");

  std::string manifestPath = sign(Value(backup));
  LogCapture capture;
  EXPECT_FALSE(operations.restoreAttributesUnder(Value(), Value(manifestPath), Value(), Value()));
  EXPECT_EQ(capture.messages().back(), "Staging root path is not a string: <null>");

  // A request that is no dictionary passes absent values on.
  platform::Platform& shared = platform::shared();
  platform::Platform saved = shared;
  shared = signers.platform;
  LogCapture requestLog;
  EXPECT_FALSE(QLXHMessageResponder().restoreAttributes(Value("content.signed")));
  shared = saved;
  EXPECT_EQ(
      requestLog.messages(),
      (std::vector<std::string>{
          "Entering -[QLXHMessageResponder restoreAttributes:] with parameter: content.signed",
          "Loading signed manifest.", "Cannot open manifest file."}));
}

}  // namespace
