#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/linux/LinuxFileSystem.h"
#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

using platform::testing::TempDirectory;

struct stat lstatOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
  return st;
}

std::string typeOf(LinuxFileSystem& fs, const std::string& path) {
  auto attrs = fs.attributesOfItem(path);
  if (!attrs) return "error: " + attrs.error().description;
  const Value* t = attrs->find(attr::kFileType);
  return t && t->isString() ? *t->string() : "?";
}

class LinuxFileAttributesTest : public ::testing::Test {
 protected:
  LinuxFileSystem fs;
  TempDirectory dir;
  bool root = ::geteuid() == 0;
};

TEST_F(LinuxFileAttributesTest, DescribesARegularFileAsStatDoes) {
  std::string file = dir.write("f", "hello");
  ASSERT_EQ(::chmod(file.c_str(), 0640), 0);
  ASSERT_EQ(::link(file.c_str(), (dir / "hard").c_str()), 0);
  auto attrs = fs.attributesOfItem(file);
  ASSERT_TRUE(attrs) << attrs.error().description;
  struct stat st = lstatOf(file);
  EXPECT_EQ(*attrs->find(attr::kFileType)->string(), "Regular");
  EXPECT_EQ(attrs->find(attr::kFileSize)->int64Value(), 5);
  EXPECT_EQ(attrs->find(attr::kPosixPermissions)->int64Value(), 0640);
  EXPECT_EQ(attrs->find(attr::kReferenceCount)->int64Value(), 2);
  EXPECT_EQ(attrs->find(attr::kSystemNumber)->uint64Value(), st.st_dev);
  if (root) {
    EXPECT_EQ(*attrs->find(attr::kGroupOwnerAccountName)->string(), "root");
  }
  EXPECT_EQ(*attrs->find(attr::kModificationDate)->date(),
            Date::fromUnix(st.st_mtim.tv_sec, st.st_mtim.tv_nsec));
  EXPECT_FALSE(attrs->contains(attr::kProtectionKey));
}

TEST_F(LinuxFileAttributesTest, NamesEveryKindOfItemWithoutFollowingLinks) {
  dir.mkdir("d");
  std::string file = dir.write("f", "x");
  ASSERT_EQ(::symlink("f", (dir / "link").c_str()), 0);
  ASSERT_EQ(::symlink("missing", (dir / "dangling").c_str()), 0);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);

  EXPECT_EQ(typeOf(fs, dir / "d"), "Directory");
  EXPECT_EQ(typeOf(fs, dir / "link"), "SymbolicLink");
  EXPECT_EQ(typeOf(fs, dir / "dangling"), "SymbolicLink");
  EXPECT_EQ(typeOf(fs, dir / "fifo"), "FIFO");
  EXPECT_EQ(fs.attributesOfItem(dir / "link")->find(attr::kFileSize)->int64Value(), 1);
  EXPECT_EQ(*fs.sizeOfItem(dir / "link"), 1u);
  EXPECT_EQ(*fs.sizeOfItem(file), 1u);
  if (root && ::mknod((dir / "null").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0) {
    auto attrs = fs.attributesOfItem(dir / "null");
    EXPECT_EQ(*attrs->find(attr::kFileType)->string(), "CharacterSpecial");
    EXPECT_EQ(attrs->find(attr::kDeviceIdentifier)->uint64Value(), makedev(1, 3));
  }

  auto missing = fs.attributesOfItem(dir / "none");
  ASSERT_FALSE(missing);
  EXPECT_NE(missing.error().description.find(dir / "none"), std::string::npos);

  EXPECT_TRUE(*fs.resourceValue(dir / "link", ResourceKey::IsSymbolicLink));
  EXPECT_FALSE(*fs.resourceValue(dir / "link", ResourceKey::IsRegularFile));
  EXPECT_FALSE(fs.resourceValue(dir / "none", ResourceKey::IsDirectory));
  EXPECT_EQ(*fs.destinationOfSymbolicLink(dir / "dangling"), "missing");
  EXPECT_FALSE(fs.destinationOfSymbolicLink(file));
}

TEST_F(LinuxFileAttributesTest, AccountNamesWinOverIDsWhenTheyResolve) {
  if (!root) GTEST_SKIP() << "changing owners needs root";
  std::string file = dir.write("f", "x");
  Dictionary byName{{attr::kOwnerAccountName, "nobody"},
                    {attr::kOwnerAccountID, 0},
                    {attr::kGroupOwnerAccountName, "no-such-group-here"},
                    {attr::kGroupOwnerAccountID, 4242}};
  ASSERT_TRUE(fs.setAttributes(byName, file));
  EXPECT_EQ(lstatOf(file).st_uid, 65534u);
  EXPECT_EQ(lstatOf(file).st_gid, 4242u);

  // A name that resolves to nothing, with no ID to fall back on, is refused
  // before anything changes.
  Dictionary unknown{{attr::kOwnerAccountName, "no-such-user-here"},
                     {attr::kPosixPermissions, 0600}};
  Status s = fs.setAttributes(unknown, file);
  EXPECT_FALSE(s);
  EXPECT_EQ(s.error().code, EINVAL);
  EXPECT_NE(lstatOf(file).st_mode & 07777, 0600u);
}

TEST_F(LinuxFileAttributesTest, SetsModeAndDateAndAcceptsKeysWithoutLinuxMeaning) {
  std::string file = dir.write("f", "x");
  Dictionary attrs{{attr::kPosixPermissions, 04751},
                   {attr::kModificationDate, Date{1700000000.25}},
                   {attr::kCreationDate, Date{1}},
                   {attr::kBusy, true},
                   {attr::kCreatorCode, 1234},
                   {attr::kTypeCode, 5678},
                   {attr::kExtensionHidden, true},
                   {attr::kProtectionKey, "ProtectionComplete"},
                   {attr::kFileSize, 99}};
  ASSERT_TRUE(fs.setAttributes(attrs, file));
  struct stat st = lstatOf(file);
  EXPECT_EQ(st.st_mode & 07777, 04751u);
  EXPECT_EQ(st.st_mtim.tv_sec, 1700000000);
  EXPECT_EQ(st.st_mtim.tv_nsec, 250000000);
  EXPECT_EQ(st.st_size, 1);
  EXPECT_TRUE(fs.setAttributes({}, file));

  for (auto bad :
       {Dictionary{{attr::kPosixPermissions, "0644"}}, Dictionary{{attr::kModificationDate, 5}},
        Dictionary{{attr::kOwnerAccountID, -1}}, Dictionary{{attr::kGroupOwnerAccountName, 7}},
        Dictionary{{attr::kPosixPermissions, -1}},
        Dictionary{{attr::kPosixPermissions, 0x10644}}}) {
    Status s = fs.setAttributes(bad, file);
    EXPECT_FALSE(s);
    EXPECT_EQ(s.error().code, EINVAL);
  }
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 04751u);
  EXPECT_FALSE(fs.setAttributes(attrs, dir / "none"));
}

// Years 1 and 9999 land to the nanosecond where the file system holds them
// (btrfs, tmpfs); where it would clamp them (ext4 ends in 2446) they are
// refused and the file keeps its time.
TEST_F(LinuxFileAttributesTest, DatesLandExactlyOrNotAtAll) {
  std::string file = dir.write("f", "x");
  for (auto [sec, nsec] : {std::pair{-62135596800LL, 1LL}, std::pair{253402300799LL, 999999999LL},
                           std::pair{-2208988800LL, 500000000LL}}) {
    struct stat before = lstatOf(file);
    Date date = Date::fromUnix(sec, nsec);
    Status s = fs.setAttributes(Dictionary{{attr::kModificationDate, date}}, file);
    struct stat st = lstatOf(file);
    if (s) {
      EXPECT_EQ(st.st_mtim.tv_sec, sec);
      EXPECT_EQ(st.st_mtim.tv_nsec, nsec);
      EXPECT_EQ(*fs.attributesOfItem(file)->find(attr::kModificationDate)->date(), date);
    } else {
      EXPECT_EQ(s.error().code, EOVERFLOW);
      EXPECT_NE(s.error().description.find("cannot hold the date " + formatDate(date)),
                std::string::npos)
          << s.error().description;
      EXPECT_EQ(st.st_mtim.tv_sec, before.st_mtim.tv_sec);
      EXPECT_EQ(st.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
    }
  }
}

TEST_F(LinuxFileAttributesTest, ImmutableIsLiftedFirstAndPutBackLast) {
  if (!root) GTEST_SKIP() << "the immutable flag needs root";
  std::string file = dir.write("f", "x");
  Status made = fs.setAttributes({{attr::kImmutable, true}}, file);
  if (!made && made.error().code == EOPNOTSUPP) GTEST_SKIP() << "no inode flags here";
  ASSERT_TRUE(made) << made.error().description;
  EXPECT_TRUE(fs.attributesOfItem(file)->find(attr::kImmutable)->boolValue());
  EXPECT_LT(::open(file.c_str(), O_WRONLY), 0);

  // Other changes to an immutable file succeed when the flag is part of the
  // request, and the file is immutable again afterwards.
  ASSERT_TRUE(fs.setAttributes({{attr::kImmutable, true}, {attr::kPosixPermissions, 0600}}, file));
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 0600u);
  EXPECT_TRUE(fs.attributesOfItem(file)->find(attr::kImmutable)->boolValue());
  // Without it they fail, as the kernel refuses them.
  EXPECT_FALSE(fs.setAttributes({{attr::kPosixPermissions, 0644}}, file));

  ASSERT_TRUE(fs.setAttributes({{attr::kImmutable, false}, {attr::kPosixPermissions, 0644}}, file));
  EXPECT_FALSE(fs.attributesOfItem(file)->find(attr::kImmutable)->boolValue());
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 0644u);
}

TEST_F(LinuxFileAttributesTest, NeverFollowsALinkWhenSetting) {
  std::string file = dir.write("target", "x");
  ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
  std::string link = dir / "link";
  ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
  Dictionary attrs{{attr::kPosixPermissions, 0777}, {attr::kModificationDate, Date{1000}}};
  if (root) attrs.set(attr::kOwnerAccountID, 4321);
  ASSERT_TRUE(fs.setAttributes(attrs, link));
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 0600u);
  EXPECT_NE(lstatOf(file).st_mtim.tv_sec, 1000);
  EXPECT_EQ(lstatOf(link).st_mtim.tv_sec, 1000);
  if (root) {
    EXPECT_EQ(lstatOf(link).st_uid, 4321u);
    EXPECT_EQ(lstatOf(file).st_uid, 0u);
  }

  // lchmod has nothing to change on a link and says so; lchown changes the
  // link itself.
  EXPECT_FALSE(fs.lchmod(link, 0644));
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 0600u);
  ASSERT_TRUE(fs.lchmod(file, 0640));
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 0640u);
  if (root) {
    ASSERT_TRUE(fs.lchown(link, 11, 12));
    EXPECT_EQ(lstatOf(link).st_gid, 12u);
    EXPECT_EQ(lstatOf(file).st_gid, 0u);
  }
}

TEST_F(LinuxFileAttributesTest, ExtendedAttributesUseTheSizeProbeAndStayOnTheLink) {
  std::string file = dir.write("f", "x");
  const std::string value("v\0alue\xff", 7);
  ASSERT_EQ(::setxattr(file.c_str(), "user.first", value.data(), value.size(), 0), 0);
  ASSERT_EQ(::setxattr(file.c_str(), "user.second", "", 0, 0), 0);

  auto size = fs.listExtendedAttributes(file, {});
  ASSERT_TRUE(size);
  std::vector<std::uint8_t> names(*size);
  auto got = fs.listExtendedAttributes(file, names);
  ASSERT_TRUE(got);
  std::string list(names.begin(), names.begin() + static_cast<long>(*got));
  EXPECT_NE(list.find(std::string("user.first\0", 11)), std::string::npos);
  EXPECT_NE(list.find(std::string("user.second\0", 12)), std::string::npos);

  auto vsize = fs.getExtendedAttribute(file, "user.first", {});
  ASSERT_TRUE(vsize);
  EXPECT_EQ(*vsize, value.size());
  std::vector<std::uint8_t> v(*vsize);
  ASSERT_TRUE(fs.getExtendedAttribute(file, "user.first", v));
  EXPECT_EQ(std::string(v.begin(), v.end()), value);
  std::vector<std::uint8_t> small(2);
  EXPECT_EQ(fs.getExtendedAttribute(file, "user.first", small).error().code, ERANGE);
  EXPECT_EQ(fs.getExtendedAttribute(file, "user.none", {}).error().code, ENODATA);

  const std::uint8_t bytes[] = {0, 1, 2};
  ASSERT_TRUE(fs.setExtendedAttribute(file, "user.third", bytes));
  char back[3];
  EXPECT_EQ(::getxattr(file.c_str(), "user.third", back, 3), 3);

  // A link's own attributes: user attributes cannot be put on links, and the
  // target's are not reported for it.
  std::string link = dir / "link";
  ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
  EXPECT_FALSE(fs.setExtendedAttribute(link, "user.x", bytes));
  EXPECT_EQ(::getxattr(file.c_str(), "user.x", nullptr, 0), -1);
  auto linkList = fs.listExtendedAttributes(link, {});
  ASSERT_TRUE(linkList);
  EXPECT_EQ(*linkList, 0u);
  EXPECT_FALSE(fs.listExtendedAttributes(dir / "none", {}));
}

}  // namespace
}  // namespace platform
