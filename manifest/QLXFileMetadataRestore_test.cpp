#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>

#include <gtest/gtest.h>

#include "manifest/QLXFileMetadata.h"
#include "platform/FileSystem.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/OpenSslDigestService.h"
#include "platform/testing/ForwardingFileSystem.h"
#include "platform/testing/LogCapture.h"
#include "platform/testing/TempDirectory.h"

namespace {

using platform::Data;
using platform::Dictionary;
using platform::Value;
using platform::testing::LogCapture;
using platform::testing::TempDirectory;

std::string run(const std::string& command) {
  std::string out;
  if (FILE* p = ::popen(command.c_str(), "r")) {
    char buf[4096];
    while (std::size_t n = std::fread(buf, 1, sizeof buf, p)) out.append(buf, n);
    ::pclose(p);
  }
  return out;
}

Data bytes(const std::string& s) { return Data(s.begin(), s.end()); }

class QLXFileMetadataRestoreTest : public ::testing::Test {
 protected:
  platform::LinuxFileSystem fs;
  platform::OpenSslDigestService digests;
  platform::Platform platform{.fileSystem = &fs, .digests = &digests};
  TempDirectory dir;
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
  std::string expected = run("getfattr --absolute-names -d -e hex " + original);
  // What the copy had and the record lacks stays.
  EXPECT_NE(xattrs.find("user.extra=0x6b656570"), std::string::npos) << xattrs;
  EXPECT_NE(xattrs.find("user.a=0x66690a727374"), std::string::npos) << xattrs;
  EXPECT_NE(xattrs.find("user.b=0x7365636f6e64"), std::string::npos) << xattrs;
  EXPECT_NE(expected.find("user.a=0x66690a727374"), std::string::npos) << expected;
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
  EXPECT_FALSE(record(linkAttrs, {{"user.x", bytes("v")}}).restoreAttribuesToPath(link));
  EXPECT_TRUE(record(linkAttrs).restoreAttribuesToPath(link));
  if (root) {
    EXPECT_EQ(run("stat -c '%u %g' " + link), "42 43\n");
    EXPECT_EQ(run("stat -c '%u %g' " + file), "0 0\n");
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
  EXPECT_FALSE(r.restoreAttribuesToPath(missing));
  auto lines = log.matching("Could not set file attributs at " + missing + " with error - ");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("No such file or directory"), std::string::npos);
  EXPECT_NE(lines[0].find("attributes = {\n    FilePosixPermissions = 420;\n}"),
            std::string::npos)
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

TEST_F(QLXFileMetadataRestoreTest, AllowSetKeepsTheSettableKeysInTheGivenOrder) {
  Dictionary all{{"FileType", "Regular"},          {"FilePosixPermissions", 0644},
                 {"FileOwnerAccountName", "a"},    {"FileReferenceCount", 1},
                 {"FileModificationDate", platform::Date{5}},
                 {"FileBusy", false},              {"FileCreatorCode", 0},
                 {"FileTypeCode", 0},              {"FileImmutable", false},
                 {"FileCreationDate", platform::Date{1}},
                 {"FileExtensionHidden", false},   {"FileGroupOwnerAccountID", 2},
                 {"FileGroupOwnerAccountName", "g"},
                 {"FileOwnerAccountID", 3},        {"FileProtectionKey", "ProtectionNone"},
                 {"FileSystemFileNumber", 9},      {"FileSize", 1}};
  auto allowed = record({}).fileAttributesAllowSet(all);
  EXPECT_EQ(allowed.keys(),
            (std::vector<std::string>{"FilePosixPermissions", "FileOwnerAccountName",
                                      "FileModificationDate", "FileBusy", "FileCreatorCode",
                                      "FileTypeCode", "FileImmutable", "FileCreationDate",
                                      "FileExtensionHidden", "FileGroupOwnerAccountID",
                                      "FileGroupOwnerAccountName", "FileOwnerAccountID"}));
}

// ---- Comparing

class QLXFileMetadataCompareTest : public QLXFileMetadataRestoreTest {
 protected:
  Dictionary base{{"FileType", "Regular"},
                  {"FileOwnerAccountID", 501},
                  {"FileGroupOwnerAccountID", 501},
                  {"FilePosixPermissions", 0644},
                  {"FileModificationDate", platform::Date{1}},
                  {"FileSize", 3}};

  QLXFileMetadata make(Dictionary attrs, Value hash = Data{1, 2}, Value target = "",
                       Value xattrs = Dictionary{{"user.a", Data{7}}}) {
    Dictionary d{{"QLXManifestFileAttributes", attrs}};
    if (!xattrs.isNull()) d.set("QLXManifestFileExtendedAttributes", xattrs);
    d.set("QLXManifestFileHash", hash);
    d.set("QLXManifestSymbolicLinkTargetFile", target);
    return QLXFileMetadata(platform, d);
  }
  Dictionary with(const char* key, Value v) {
    Dictionary d = base;
    d.set(key, v);
    return d;
  }
};

TEST_F(QLXFileMetadataCompareTest, TheFirstDifferenceDecidesTheCode) {
  QLXFileMetadata self = make(base);
  EXPECT_EQ(self.compareWith(nullptr), 0);
  EXPECT_EQ(self.compareWith(&self), 6);
  EXPECT_EQ(self.compareWith(&*std::make_unique<QLXFileMetadata>(
                make(with("FileType", "Directory")))),
            1);
  // Types come before contents, contents before ownership.
  QLXFileMetadata otherHash = make(with("FilePosixPermissions", 0600), Data{9});
  EXPECT_EQ(self.compareWith(&otherHash), 2);
  QLXFileMetadata noHash = make(base, Value());
  EXPECT_EQ(self.compareWith(&noHash), 2);
  for (const char* key : {"FileOwnerAccountID", "FileGroupOwnerAccountID", "FilePosixPermissions"}) {
    QLXFileMetadata changed = make(with(key, 7));
    EXPECT_EQ(self.compareWith(&changed), 4) << key;
    Dictionary without = base;
    without.erase(key);
    QLXFileMetadata missing = make(without);
    EXPECT_EQ(self.compareWith(&missing), 4) << key;
  }
  // Numbers compare by value, whatever their storage.
  QLXFileMetadata unsignedIDs = make(with("FileOwnerAccountID", std::uint64_t{501}));
  EXPECT_EQ(self.compareWith(&unsignedIDs), 6);
  // Dates, sizes and names are not compared.
  Dictionary others = with("FileModificationDate", platform::Date{99});
  others.set("FileSize", 4);
  others.set("FileOwnerAccountName", "someone");
  QLXFileMetadata touched = make(others);
  EXPECT_EQ(self.compareWith(&touched), 6);
  QLXFileMetadata otherXattr = make(base, Data{1, 2}, "", Dictionary{{"user.a", Data{8}}});
  EXPECT_EQ(self.compareWith(&otherXattr), 5);
}

TEST_F(QLXFileMetadataCompareTest, LinksCompareTheirTargetsNotTheirHashes) {
  Dictionary link = with("FileType", "SymbolicLink");
  QLXFileMetadata self = make(link, Data{}, "a");
  QLXFileMetadata sameTarget = make(link, Data{5}, "a");
  QLXFileMetadata otherTarget = make(link, Data{}, "b");
  EXPECT_EQ(self.compareWith(&sameTarget), 6);
  EXPECT_EQ(self.compareWith(&otherTarget), 3);
  // Only this record's type decides whether targets matter.
  QLXFileMetadata dirs = make(with("FileType", "Directory"), Data{}, "x");
  QLXFileMetadata dirs2 = make(with("FileType", "Directory"), Data{3}, "y");
  EXPECT_EQ(dirs.compareWith(&dirs2), 6);
}

TEST_F(QLXFileMetadataCompareTest, ProtectionClassDifferencesNeverCount) {
  QLXFileMetadata none = make(with("FileProtectionKey", "ProtectionNone"));
  QLXFileMetadata complete = make(with("FileProtectionKey", "ProtectionComplete"));
  QLXFileMetadata absent = make(base);
  EXPECT_EQ(none.compareWith(&complete), 6);
  EXPECT_EQ(complete.compareWith(&none), 6);
  EXPECT_EQ(complete.compareWith(&absent), 6);
  EXPECT_EQ(absent.compareWith(&none), 6);
}

TEST_F(QLXFileMetadataCompareTest, ExtendedAttributesIgnoreTheRebuildMarker) {
  Dictionary mine{{"user.a", Data{7}}, {"com.velmor.ferrowd.dbRebuildUuid", Data{1}}};
  Dictionary theirs{{"com.velmor.ferrowd.dbRebuildUuid", Data{2}}, {"user.a", Data{7}}};
  QLXFileMetadata self = make(base, Data{1, 2}, "", mine);
  QLXFileMetadata other = make(base, Data{1, 2}, "", theirs);
  EXPECT_EQ(self.compareWith(&other), 6);
  QLXFileMetadata onlyMarker = make(base, Data{1, 2}, "",
                                    Dictionary{{"user.a", Data{7}}});
  EXPECT_EQ(self.compareWith(&onlyMarker), 6);

  QLXFileMetadata extra = make(base, Data{1, 2}, "",
                               Dictionary{{"user.a", Data{7}}, {"user.b", Data{}}});
  EXPECT_EQ(self.compareWith(&extra), 5);
  QLXFileMetadata renamed = make(base, Data{1, 2}, "", Dictionary{{"user.z", Data{7}}});
  EXPECT_EQ(self.compareWith(&renamed), 5);
  QLXFileMetadata notData = make(base, Data{1, 2}, "", Dictionary{{"user.a", "7"}});
  EXPECT_EQ(self.compareWith(&notData), 5);

  // Absent on this side: equal only when absent on the other too.
  QLXFileMetadata absent = make(base, Data{1, 2}, "", Value());
  QLXFileMetadata absent2 = make(base, Data{1, 2}, "", Value());
  EXPECT_EQ(absent.compareWith(&absent2), 6);
  EXPECT_EQ(absent.compareWith(&self), 5);
  // Absent on the other side counts as empty.
  QLXFileMetadata emptyXattrs = make(base, Data{1, 2}, "", Dictionary{});
  EXPECT_EQ(emptyXattrs.compareWith(&absent), 6);
  EXPECT_EQ(self.compareWith(&absent), 5);
}

}  // namespace
