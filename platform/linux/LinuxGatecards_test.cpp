#include "platform/linux/LinuxGatecards.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "platform/PropertyList.h"
#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

using testing::TempDirectory;
namespace fs = std::filesystem;

const char* kEntitlement = "com.velmor.private.quillex.quillexd";

// A child process running `program` (with the supplementary groups given,
// if any), with a pidfd taken once it has exec'd (the close-on-exec pipe
// tells when). Killed and reaped at the end.
class Child {
 public:
  explicit Child(const std::string& program, const std::vector<gid_t>& groups = {}) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) std::abort();
    pid_ = ::fork();
    if (pid_ == 0) {
      if (!groups.empty() && ::setgroups(groups.size(), groups.data()) != 0) ::_exit(126);
      ::execl(program.c_str(), program.c_str(), "30", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(pipeFds[1]);
    char c;
    while (::read(pipeFds[0], &c, 1) > 0) {
    }
    ::close(pipeFds[0]);
    pidfd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
  }
  ~Child() {
    if (pidfd_ >= 0) ::close(pidfd_);
    if (!reaped_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  void kill(bool reap) {
    ::kill(pid_, SIGKILL);
    if (reap) {
      ::waitpid(pid_, nullptr, 0);
      reaped_ = true;
    } else {
      siginfo_t info{};
      // Wait for the exit without reaping, leaving a zombie.
      ::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
    }
  }
  AuditToken token() const { return AuditToken{pid_, 0, 0, pidfd_}; }
  pid_t pid() const { return pid_; }
  int pidfd() const { return pidfd_; }

 private:
  pid_t pid_ = -1;
  int pidfd_ = -1;
  bool reaped_ = false;
};

class GatecardsTest : public ::testing::Test {
 protected:
  // A grant file, written root-owned and 0644 unless a test changes it.
  void grant(const std::string& name, const std::string& program, Dictionary entitlements,
             Dictionary accounts = {}) {
    std::string path = grants.path() + "/" + name;
    Dictionary contents{{"Program", program}, {"Entitlements", std::move(entitlements)}};
    for (const auto& [key, value] : accounts) contents.set(key, value);
    auto text = writeXmlPropertyList(Value(std::move(contents)));
    std::ofstream(path) << *text;
    ::chmod(path.c_str(), 0644);
  }
  std::string copyOfSleep(const std::string& name) {
    std::string path = programs / name;
    fs::copy_file(sleepPath, path);
    ::chmod(path.c_str(), 0755);
    return path;
  }

  TempDirectory grants;
  TempDirectory programs;
  std::string sleepPath = fs::canonical("/bin/sleep");
  LinuxGatecards gatecards{grants.path()};
};

TEST_F(GatecardsTest, GrantedValuesComeBackAsStoredAndLaterFilesWin) {
  grant("10-vexdctl.plist", sleepPath,
        {{kEntitlement, true}, {"x.text", "yes"}, {"x.nested", Dictionary{{"a", 1}}}});
  grant("20-override.plist", sleepPath, {{"x.text", 7}});
  grant("30-other.plist", "/usr/bin/other", {{"x.other", true}});
  std::ofstream(grants / "40-broken.plist") << "<plist><dict>";
  grant("50-ignored.txt", sleepPath, {{"x.suffix", true}});
  Child child(sleepPath);

  auto card = gatecards.createFromAuditToken(child.token());
  ASSERT_TRUE(card) << card.error().description;
  EXPECT_EQ(card->program, sleepPath);
  ASSERT_TRUE(card->valueForEntitlement(kEntitlement));
  EXPECT_TRUE(card->valueForEntitlement(kEntitlement)->isBoolean());
  auto text = card->valueForEntitlement("x.text");
  ASSERT_TRUE(text);
  EXPECT_EQ(text->type(), Value::Type::Int64);
  EXPECT_TRUE(card->valueForEntitlement("x.nested")->isDictionary());
  EXPECT_FALSE(card->valueForEntitlement("x.other"));
  EXPECT_FALSE(card->valueForEntitlement("x.suffix"));
  EXPECT_FALSE(card->valueForEntitlement("never.granted"));
}

TEST_F(GatecardsTest, GrantsOthersCouldHaveWrittenAreIgnored) {
  grant("group-writable.plist", sleepPath, {{"x.group", true}});
  ::chmod((grants / "group-writable.plist").c_str(), 0664);
  grant("world-writable.plist", sleepPath, {{"x.world", true}});
  ::chmod((grants / "world-writable.plist").c_str(), 0646);
  grant("user-owned.plist", sleepPath, {{"x.user", true}});
  ASSERT_EQ(::chown((grants / "user-owned.plist").c_str(), 1000, 1000), 0);
  grant("good.plist", sleepPath, {{"x.good", true}});
  ASSERT_EQ(::symlink((grants / "good.plist").c_str(), (grants / "link.plist").c_str()), 0);
  grant("shape.plist", sleepPath, {});
  std::ofstream(grants / "shape.plist") << *writeXmlPropertyList(
      Value(Dictionary{{"Program", sleepPath}, {"Entitlements", Array{"x.array"}}}));
  Child child(sleepPath);

  auto card = gatecards.createFromAuditToken(child.token());
  ASSERT_TRUE(card);
  EXPECT_EQ(card->entitlements.keys(), std::vector<std::string>{"x.good"});

  // A grant folder others may write to counts for nothing.
  ::chmod(grants.path().c_str(), 0777);
  EXPECT_TRUE(gatecards.createFromAuditToken(child.token())->entitlements.empty());
}

TEST_F(GatecardsTest, ProgramsOthersCouldHaveChangedHoldNoGrants) {
  std::string userOwned = copyOfSleep("user-owned");
  ASSERT_EQ(::chown(userOwned.c_str(), 1000, 1000), 0);
  std::string groupWritable = copyOfSleep("group-writable");
  ::chmod(groupWritable.c_str(), 0775);
  std::string rootOwned = copyOfSleep("root-owned");
  for (const auto& path : {userOwned, groupWritable, rootOwned})
    grant(fs::path(path).filename().string() + ".plist", path, {{kEntitlement, true}});

  for (const auto& path : {userOwned, groupWritable}) {
    Child child(path);
    auto card = gatecards.createFromAuditToken(child.token());
    ASSERT_TRUE(card) << path;
    EXPECT_FALSE(card->valueForEntitlement(kEntitlement)) << path;
  }
  Child child(rootOwned);
  EXPECT_TRUE(gatecards.createFromAuditToken(child.token())->valueForEntitlement(kEntitlement));
}

TEST_F(GatecardsTest, TokensThatNoLongerNameTheirPeerAreRefused) {
  grant("sleep.plist", sleepPath, {{kEntitlement, true}});
  Child reaped(sleepPath), zombie(sleepPath), other(sleepPath);
  reaped.kill(true);
  zombie.kill(false);
  EXPECT_FALSE(gatecards.createFromAuditToken(reaped.token()));
  EXPECT_FALSE(gatecards.createFromAuditToken(zombie.token()));

  // A recycled pid: the pid names a live process, the pidfd another one.
  EXPECT_FALSE(gatecards.createFromAuditToken(AuditToken{other.pid(), 0, 0, zombie.pidfd()}));
  EXPECT_FALSE(gatecards.createFromAuditToken(AuditToken{other.pid(), 0, 0, -1}));
  int notAPidfd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_FALSE(gatecards.createFromAuditToken(AuditToken{other.pid(), 0, 0, notAPidfd}));
  ::close(notAPidfd);
  EXPECT_FALSE(gatecards.createFromAuditToken(AuditToken{0, 0, 0, other.pidfd()}));
  EXPECT_TRUE(gatecards.createFromAuditToken(other.token()));
}

TEST_F(GatecardsTest, GrantsForSomeAccountsHoldOnlyForTheirSenders) {
  if (::geteuid() != 0) GTEST_SKIP() << "supplementary groups need root";
  grant("10-base.plist", sleepPath, {{kEntitlement, true}});
  grant("20-root.plist", sleepPath, {{"x.root", true}}, {{"Users", Array{"root"}}});
  grant("30-user.plist", sleepPath, {{"x.user", true}, {kEntitlement, false}},
        {{"Users", Array{4321}}});
  grant("40-group.plist", sleepPath, {{"x.group", true}}, {{"Groups", Array{4444}}});
  grant("50-malformed.plist", sleepPath, {{"x.malformed", true}, {kEntitlement, false}},
        {{"Users", "root"}});
  Child plain(sleepPath), member(sleepPath, {4444});

  auto entitlementsOf = [&](const Child& child, std::uint32_t uid, std::uint32_t gid) {
    AuditToken token = child.token();
    token.uid = uid;
    token.gid = gid;
    auto card = gatecards.createFromAuditToken(token);
    EXPECT_TRUE(card) << card.error().description;
    return card ? card->entitlements : Dictionary{};
  };
  EXPECT_EQ(entitlementsOf(plain, 0, 0), (Dictionary{{kEntitlement, true}, {"x.root", true}}));
  // A later grant for an account overrides the base for that account only.
  EXPECT_EQ(entitlementsOf(plain, 4321, 4321),
            (Dictionary{{kEntitlement, false}, {"x.user", true}}));
  EXPECT_EQ(entitlementsOf(plain, 1, 4444), (Dictionary{{kEntitlement, true}, {"x.group", true}}));
  // Supplementary groups are read from the process itself.
  EXPECT_EQ(entitlementsOf(member, 1, 1), (Dictionary{{kEntitlement, true}, {"x.group", true}}));
  EXPECT_EQ(entitlementsOf(plain, 1, 1), (Dictionary{{kEntitlement, true}}));
}

TEST_F(GatecardsTest, ABinaryReplacedUnderItsPathIsRefused) {
  std::string program = copyOfSleep("replaced");
  grant("replaced.plist", program, {{kEntitlement, true}});
  Child child(program);
  ASSERT_TRUE(gatecards.createFromAuditToken(child.token()));
  std::string other = copyOfSleep("impostor");
  fs::rename(other, program);
  auto card = gatecards.createFromAuditToken(child.token());
  ASSERT_FALSE(card);
  EXPECT_EQ(card.error().code, ESTALE);
}

}  // namespace
}  // namespace platform
