#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>

#include "manifest/QLXFileMetadata.h"
#include "platform/FileSystem.h"
#include "platform/testing/Commands.h"
#include "platform/testing/ForwardingFileSystem.h"
#include "platform/testing/LinuxTestBed.h"
#include "platform/testing/LogCapture.h"

namespace {

using platform::Data;
using platform::Dictionary;
using platform::Value;
using platform::testing::bytesOf;
using platform::testing::LogCapture;
using platform::testing::run;

class QLXFileMetadataRestoreTest : public ::testing::Test,
                                   protected platform::testing::LinuxTestBed {
 protected:
  bool root = ::geteuid() == 0;

  QLXFileMetadata record(Dictionary attributes, Dictionary xattrs = {}) {
    return QLXFileMetadata(platform, Dictionary{{"QLXManifestFileAttributes", attributes},
                                                {"QLXManifestFileExtendedAttributes", xattrs},
                                                {"QLXManifestFileHash", Data{}},
                                                {"QLXManifestSymbolicLinkTargetFile", ""}});
  }
};

TEST_F(QLXFileMetadataRestoreTest, ARecordRestoredOntoAnotherFileReproducesIt) {
  if (!root) GTEST_SKIP() << "ownership needs root";
  std::string original = dir.write("original", "data");
  ASSERT_EQ(::chown(original.c_str(), 1234, 5678), 0);
  ASSERT_EQ(::chmod(original.c_str(), 0640), 0);
  ASSERT_EQ(::setxattr(original.c_str(), "user.b", "second", 6, 0), 0);
  ASSERT_EQ(::setxattr(original.c_str(), "user.a", "fi\nrst", 6, 0), 0);
  ASSERT_EQ(run("touch -m -d '2021-02-03 04:05:06.123456789' " + original), "");
  auto recorded = QLXFileMetadata::initWithPath(platform, original);
  ASSERT_TRUE(recorded);

  std::string copy = dir.write("copy", "other contents");
  ASSERT_EQ(::setxattr(copy.c_str(), "user.extra", "keep", 4, 0), 0);
  ASSERT_TRUE(recorded->restoreAttribuesToPath(copy));

  auto statOf = [](const std::string& p) { return run("stat -c '%u %g %a %.6Y' " + p); };
  EXPECT_EQ(statOf(copy), statOf(original));
  std::string xattrs = run("getfattr --absolute-names -d -e hex " + copy);
  // What the copy had and the record lacks stays.
  EXPECT_NE(xattrs.find("user.extra=0x6b656570"), std::string::npos) << xattrs;
  EXPECT_NE(xattrs.find("user.a=0x66690a727374"), std::string::npos) << xattrs;
  EXPECT_NE(xattrs.find("user.b=0x7365636f6e64"), std::string::npos) << xattrs;
  // The restored copy now compares equal apart from the extra attribute.
  auto after = QLXFileMetadata::initWithPath(platform, copy);
  EXPECT_EQ(recorded->compareWith(&*after), 2);  // contents still differ
}

TEST_F(QLXFileMetadataRestoreTest, AnExtendedAttributeFailureFailsOnlyALink) {
  LogCapture log;
  // The kernel refuses names outside the known namespaces on any object,
  // and user attributes on links.
  std::string file = dir.write("file", "x");
  Dictionary attrs{{"FileType", "Regular"}, {"FilePosixPermissions", 0600}};
  EXPECT_TRUE(record(attrs, {{"nonamespace", Data{1}}}).restoreAttribuesToPath(file));
  EXPECT_TRUE(log.contains("Could not set extended attributes on " + file));
  EXPECT_EQ(run("stat -c %a " + file), "600\n");

  std::string link = dir / "link";
  ASSERT_EQ(::symlink("file", link.c_str()), 0);
  Dictionary linkAttrs{{"FileType", "SymbolicLink"},
                       {"FileOwnerAccountID", root ? 42 : ::getuid()},
                       {"FileGroupOwnerAccountID", root ? 43 : ::getgid()},
                       {"FilePosixPermissions", 0777}};
  EXPECT_FALSE(record(linkAttrs, {{"user.x", bytesOf("v")}}).restoreAttribuesToPath(link));
  EXPECT_TRUE(record(linkAttrs).restoreAttribuesToPath(link));
  if (root) {
    EXPECT_EQ(run("stat -c '%u %g' " + link), "42 43\n");
    EXPECT_EQ(run("stat -c '%u %g' " + file), "0 0\n");
  }

  // IDs and modes that do not fit are not cut to fit (2^32 would be root).
  for (auto [key, value] : {std::pair{"FileOwnerAccountID", Value(std::int64_t{1} << 32)},
                            std::pair{"FileGroupOwnerAccountID", Value(-2)},
                            std::pair{"FilePosixPermissions", Value(0x10000)}}) {
    Dictionary wide = linkAttrs;
    wide.set(key, value);
    EXPECT_TRUE(record(wide).restoreAttribuesToPath(link));
    EXPECT_TRUE(log.contains(std::string("Ignoring ") + key + " " + value.description() +
                             " of link " + link + ": out of range"));
  }
  if (root) {
    EXPECT_EQ(run("stat -c '%u %g' " + link), "42 43\n");
  }

  // A value that is not data stops the loop with the pending result.
  EXPECT_TRUE(record(attrs, {{"user.a", "text"}}).restoreAttribuesToPath(file));
  EXPECT_FALSE(record(linkAttrs, {{"user.a", "text"}}).restoreAttribuesToPath(link));
  EXPECT_EQ(log.count("Got non-data value"), 2u);
}

TEST_F(QLXFileMetadataRestoreTest, AttributeFailuresAreReportedWithWhatWasAsked) {
  LogCapture log;
  std::string missing = dir / "missing";
  Dictionary attrs{{"FileType", "Regular"},
                   {"FileSize", 10},
                   {"FilePosixPermissions", 0644},
                   {"FileProtectionKey", "ProtectionComplete"}};
  QLXFileMetadata r = record(attrs);
  EXPECT_EQ(r.fileAttributesAllowSet(attrs), (Dictionary{{"FilePosixPermissions", 0644}}));
  Dictionary mixed{{"FileOwnerAccountID", 1},
                   {"FileSize", 2},
                   {"FileBusy", true},
                   {"FileProtectionKey", "x"},
                   {"FileCreationDate", platform::Date{}}};
  EXPECT_EQ(r.fileAttributesAllowSet(mixed).keys(),
            (std::vector<std::string>{"FileOwnerAccountID", "FileBusy", "FileCreationDate"}));
  EXPECT_FALSE(r.restoreAttribuesToPath(missing));
  auto lines = log.matching("Could not set file attributs at " + missing + " with error - ");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("No such file or directory"), std::string::npos);
  EXPECT_NE(lines[0].find("attributes = {\n    FilePosixPermissions = 420;\n}"), std::string::npos)
      << lines[0];

  // The protection class goes in a second call of its own.
  struct ProtectionRefused : platform::testing::ForwardingFileSystem {
    using ForwardingFileSystem::ForwardingFileSystem;
    std::vector<Dictionary> calls;
    platform::Status setAttributes(const Dictionary& a, const std::string& p) override {
      calls.push_back(a);
      if (a.contains("FileProtectionKey")) return platform::testing::injectedError(EPERM, p);
      return inner().setAttributes(a, p);
    }
  } refusing(fs);
  platform::Platform faulty{.fileSystem = &refusing, .digests = &digests};
  std::string file = dir.write("file", "x");
  QLXFileMetadata onFaulty(faulty, r.dict());
  EXPECT_FALSE(onFaulty.restoreAttribuesToPath(file));
  ASSERT_EQ(refusing.calls.size(), 2u);
  EXPECT_EQ(refusing.calls[1], (Dictionary{{"FileProtectionKey", "ProtectionComplete"}}));
  EXPECT_EQ(log.matching("Could not set file protection key at " + file).size(), 1u);
  EXPECT_NE(log.messages().back().find("attributes = ProtectionComplete"), std::string::npos);

  // A record without a protection class still makes the second call, empty.
  refusing.calls.clear();
  QLXFileMetadata noClass(faulty, record({{"FileType", "Regular"}}).dict());
  EXPECT_TRUE(noClass.restoreAttribuesToPath(file));
  ASSERT_EQ(refusing.calls.size(), 2u);
  EXPECT_TRUE(refusing.calls[1].empty());
}

// ---- Comparing

// One side of a comparison: a regular file unless a case changes it.
struct Side {
  Dictionary attrs{{"FileType", "Regular"},
                   {"FileOwnerAccountID", 501},
                   {"FileGroupOwnerAccountID", 501},
                   {"FilePosixPermissions", 0644},
                   {"FileModificationDate", platform::Date{1}}};
  Value hash = Data{1, 2};
  Value target = "";
  Value xattrs = Dictionary{{"user.a", Data{7}}};
  Side& set(const char* key, Value v) { return attrs.set(key, std::move(v)), *this; }
  Side& drop(const char* key) { return attrs.erase(key), *this; }
};

TEST_F(QLXFileMetadataRestoreTest, TheFirstDifferenceDecidesTheComparisonCode) {
  const char* marker = "com.velmor.ferrowd.dbRebuildUuid";
  auto link = [] { return Side().set("FileType", "SymbolicLink"); };
  auto withXattrs = [](Value x) {
    Side s;
    s.xattrs = std::move(x);
    return s;
  };
  auto withHash = [](Side s, Value h) {
    s.hash = std::move(h);
    return s;
  };
  auto withTarget = [](Side s, Value t) {
    s.target = std::move(t);
    return s;
  };
  struct Case {
    const char* what;
    Side self, other;
    std::int32_t code;
  } cases[] = {
      {"identical", {}, {}, 6},
      {"type", {}, Side().set("FileType", "Directory"), 1},
      {"contents before ownership",
       {},
       withHash(Side().set("FilePosixPermissions", 0600), Data{9}),
       2},
      {"no hash on the other side", {}, withHash(Side(), Value()), 2},
      {"owner", {}, Side().set("FileOwnerAccountID", 7), 4},
      {"group missing", {}, Side().drop("FileGroupOwnerAccountID"), 4},
      {"permissions", {}, Side().set("FilePosixPermissions", 0600), 4},
      {"IDs compare by value", {}, Side().set("FileOwnerAccountID", std::uint64_t{501}), 6},
      {"dates, sizes and names are not compared",
       {},
       Side()
           .set("FileModificationDate", platform::Date{9})
           .set("FileSize", 4)
           .set("FileOwnerAccountName", "x"),
       6},
      {"link targets", withTarget(link(), "a"), withTarget(link(), "b"), 3},
      {"links ignore hashes", withTarget(link(), "a"), withHash(withTarget(link(), "a"), Data{5}),
       6},
      {"folders ignore targets", withTarget(Side().set("FileType", "Directory"), "x"),
       withHash(withTarget(Side().set("FileType", "Directory"), "y"), Data{3}), 6},
      {"protection classes never count", Side().set("FileProtectionKey", "ProtectionComplete"),
       Side().set("FileProtectionKey", "ProtectionNone"), 6},
      {"protection class absent here", {}, Side().set("FileProtectionKey", "ProtectionNone"), 6},
      {"extended attribute value", {}, withXattrs(Dictionary{{"user.a", Data{8}}}), 5},
      {"extra extended attribute",
       {},
       withXattrs(Dictionary{{"user.a", Data{7}}, {"user.b", Data{}}}),
       5},
      {"renamed extended attribute", {}, withXattrs(Dictionary{{"user.z", Data{7}}}), 5},
      {"value that is not data", {}, withXattrs(Dictionary{{"user.a", "7"}}), 5},
      {"rebuild marker ignored", withXattrs(Dictionary{{"user.a", Data{7}}, {marker, Data{1}}}),
       withXattrs(Dictionary{{marker, Data{2}}, {"user.a", Data{7}}}), 6},
      {"rebuild marker only on one side",
       withXattrs(Dictionary{{"user.a", Data{7}}, {marker, Data{1}}}),
       {},
       6},
      {"both without extended attributes", withXattrs(Value()), withXattrs(Value()), 6},
      {"none here, some there", withXattrs(Value()), {}, 5},
      {"empty here, none there", withXattrs(Dictionary{}), withXattrs(Value()), 6},
      {"some here, none there", {}, withXattrs(Value()), 5},
  };
  auto make = [&](const Side& side) {
    Dictionary d{{"QLXManifestFileAttributes", side.attrs}};
    if (!side.xattrs.isNull()) d.set("QLXManifestFileExtendedAttributes", side.xattrs);
    if (!side.hash.isNull()) d.set("QLXManifestFileHash", side.hash);
    d.set("QLXManifestSymbolicLinkTargetFile", side.target);
    return QLXFileMetadata(platform, d);
  };
  for (const Case& c : cases) {
    QLXFileMetadata self = make(c.self), other = make(c.other);
    EXPECT_EQ(self.compareWith(&other), c.code) << c.what;
  }
  EXPECT_EQ(make(Side()).compareWith(nullptr), 0);
}

}  // namespace
