#include "manifest/QLXFileMetadata.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>

#include <gtest/gtest.h>

#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/OpenSslDigestService.h"
#include "platform/testing/ForwardingFileSystem.h"
#include "platform/testing/LogCapture.h"
#include "platform/testing/TempDirectory.h"

namespace {

using platform::Data;
using platform::Dictionary;
using platform::Error;
using platform::Result;
using platform::Value;
using platform::testing::ForwardingFileSystem;
using platform::testing::injectedError;
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

std::string hex(const Data& d) {
  std::string out;
  char buf[3];
  for (auto b : d) {
    std::snprintf(buf, sizeof buf, "%02x", b);
    out += buf;
  }
  return out;
}

Data bytes(const std::string& s) { return Data(s.begin(), s.end()); }

// Fails the calls a test names, for the paths it names.
class FaultyFileSystem : public ForwardingFileSystem {
 public:
  using ForwardingFileSystem::ForwardingFileSystem;
  std::string failOpen, failRead, failAttributes, failList, failSecondList, failValue,
      failSecondValue, failLink, failSetXattr;

  Result<std::unique_ptr<platform::ReadableFile>> openForReading(const std::string& p) override {
    if (p == failOpen) return injectedError(EACCES, p);
    auto file = inner().openForReading(p);
    if (!file || p != failRead) return file;
    // Reads one chunk, then the device gives up.
    struct Failing : platform::ReadableFile {
      std::unique_ptr<platform::ReadableFile> inner;
      int calls = 0;
      Result<std::size_t> read(std::span<std::uint8_t> b) override {
        if (calls++ == 0) return inner->read(b);
        return injectedError(EIO, "read");
      }
    };
    auto failing = std::make_unique<Failing>();
    failing->inner = std::move(*file);
    return std::unique_ptr<platform::ReadableFile>(std::move(failing));
  }
  Result<Dictionary> attributesOfItem(const std::string& p) override {
    if (p == failAttributes) return injectedError(EIO, p);
    return inner().attributesOfItem(p);
  }
  Result<std::size_t> listExtendedAttributes(const std::string& p,
                                             std::span<std::uint8_t> b) override {
    if (p == failList) return injectedError(EIO, p);
    if (p == failSecondList && !b.empty()) return std::size_t{0};
    return inner().listExtendedAttributes(p, b);
  }
  Result<std::size_t> getExtendedAttribute(const std::string& p, const std::string& n,
                                           std::span<std::uint8_t> b) override {
    if (n == failValue) return injectedError(ENODATA, p);
    if (n == failSecondValue && !b.empty()) return injectedError(ERANGE, p);
    return inner().getExtendedAttribute(p, n, b);
  }
  Result<std::string> destinationOfSymbolicLink(const std::string& p) override {
    if (p == failLink) return injectedError(EIO, p);
    return inner().destinationOfSymbolicLink(p);
  }
  platform::Status setExtendedAttribute(const std::string& p, const std::string& n,
                                        std::span<const std::uint8_t> v) override {
    if (n == failSetXattr) return injectedError(ENOSPC, p);
    return inner().setExtendedAttribute(p, n, v);
  }
};

class QLXFileMetadataTest : public ::testing::Test {
 protected:
  platform::LinuxFileSystem linuxFs;
  FaultyFileSystem fs{linuxFs};
  platform::OpenSslDigestService digests;
  platform::Platform platform{.fileSystem = &fs, .digests = &digests};
  TempDirectory dir;
  bool root = ::geteuid() == 0;
};

// ---- Hashing

TEST_F(QLXFileMetadataTest, HashesAgreeWithSha1sumAcrossChunkBoundaries) {
  std::mt19937 random(7);
  std::string big(3 * 262144 + 7, '\0');
  for (char& c : big) c = static_cast<char>(random());
  for (auto [name, contents] : {std::pair<std::string, std::string>{"big", big},
                                {"chunk", big.substr(0, 262144)},
                                {"small", "hello\n"}}) {
    std::string file = dir.write(name, contents);
    auto hash = QLXFileMetadata::fileHashWithPath(platform, file);
    ASSERT_TRUE(hash);
    EXPECT_EQ(hex(*hash), run("sha1sum " + file).substr(0, 40)) << name;
  }
  auto empty = QLXFileMetadata::fileHashWithPath(platform, dir.write("empty", ""));
  EXPECT_EQ(hex(*empty), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST_F(QLXFileMetadataTest, FoldersHashEmptyAndMissingPathsHashNothing) {
  LogCapture log;
  EXPECT_EQ(QLXFileMetadata::fileHashWithPath(platform, dir.path()), Data{});
  EXPECT_FALSE(QLXFileMetadata::fileHashWithPath(platform, dir / "none"));
  EXPECT_EQ(log.messages(), std::vector<std::string>{"File does not exist at " + (dir / "none")});
  // A missing object fails the record earlier, on its attributes.
  EXPECT_FALSE(QLXFileMetadata::initWithPath(platform, dir / "none"));
  EXPECT_TRUE(log.contains("Cannot get file attribute for " + (dir / "none")));
}

TEST_F(QLXFileMetadataTest, AnUnreadableFileGetsAnEmptyHashAndStillARecord) {
  fs.failOpen = dir.write("locked", "secret");
  LogCapture log;
  auto record = QLXFileMetadata::initWithPath(platform, fs.failOpen);
  ASSERT_TRUE(record);
  ASSERT_TRUE(record->getHash());
  EXPECT_TRUE(record->getHash()->empty());
  EXPECT_EQ(log.messages(), (std::vector<std::string>{
                                "Cannot read file " + fs.failOpen,
                                "Maybe it's an Skylet file (" + fs.failOpen + ")?"}));

  fs.failRead = dir.write("bad-disk", std::string(300000, 'x'));
  EXPECT_EQ(QLXFileMetadata::fileHashWithPath(platform, fs.failRead), Data{});
  EXPECT_TRUE(log.contains("Cannot read data from " + fs.failRead + "."));
  // The hasher's context starts clean after the failure.
  std::string after = dir.write("after", "abc");
  EXPECT_EQ(hex(*QLXFileMetadata::fileHashWithPath(platform, after)),
            "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST_F(QLXFileMetadataTest, AModeZeroFileReadByAnotherUserIsReportedNotFatal) {
  if (!root) GTEST_SKIP() << "dropping to another user needs root";
  ::chmod(dir.path().c_str(), 0755);
  std::string file = dir.write("mode000", "x");
  ::chmod(file.c_str(), 0);
  pid_t child = ::fork();
  if (child == 0) {
    if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(2);
    LogCapture log;
    auto record = QLXFileMetadata::initWithPath(platform, file);
    bool ok = record && record->getHash() && record->getHash()->empty() &&
              log.contains("Cannot read file " + file) &&
              log.contains("Maybe it's an Skylet file (" + file + ")?");
    ::_exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

// ---- Records

TEST_F(QLXFileMetadataTest, RecordsOfFoldersFilesAndLinks) {
  std::string folder = dir.mkdir("folder");
  auto d = QLXFileMetadata::fileMetadatatWithPath(platform, folder);
  ASSERT_TRUE(d);
  EXPECT_EQ(d->dict().keys(), (std::vector<std::string>{
                                  "QLXManifestFileAttributes", "QLXManifestFileExtendedAttributes",
                                  "QLXManifestFileHash", "QLXManifestSymbolicLinkTargetFile"}));
  EXPECT_EQ(*d->getFileType(), "Directory");
  EXPECT_EQ(*d->getHash(), Data{});
  EXPECT_EQ(*d->getTargetFile(), "");
  EXPECT_TRUE(d->getExtendedAttributes()->empty());
  EXPECT_EQ(d->getFileSize(), 0);

  std::string file = dir.write("file", "12345");
  auto f = QLXFileMetadata::fileMetadatatWithPath(platform, file);
  EXPECT_EQ(f->getFileSize(), 5);
  EXPECT_EQ(hex(*f->getHash()), "8cb2237d0679ca88db6464eac60da96345513964");

  // A dangling link: recorded as a link, nothing followed.
  std::string link = dir / "dangling";
  ASSERT_EQ(::symlink("no/such/target", link.c_str()), 0);
  LogCapture log;
  auto l = QLXFileMetadata::fileMetadatatWithPath(platform, link);
  ASSERT_TRUE(l);
  EXPECT_EQ(*l->getFileType(), "SymbolicLink");
  EXPECT_EQ(*l->getTargetFile(), "no/such/target");
  EXPECT_EQ(*l->getHash(), Data{});
  EXPECT_EQ(l->getFileSize(), 0);
  EXPECT_TRUE(log.messages().empty());
}

TEST_F(QLXFileMetadataTest, ExtendedAttributesComeBackByteExactInListingOrder) {
  std::string file = dir.write("file", "x");
  const std::string binary("\0\x01\xff tail", 7);
  for (auto [name, value] : {std::pair<const char*, std::string>{"user.zeta", "z"},
                             {"user.alpha", binary},
                             {"user.empty", ""}})
    ASSERT_EQ(::setxattr(file.c_str(), name, value.data(), value.size(), 0), 0);
  char list[256];
  ssize_t n = ::llistxattr(file.c_str(), list, sizeof list);
  std::vector<std::string> order;
  for (ssize_t at = 0; at < n; at += static_cast<ssize_t>(std::strlen(list + at)) + 1)
    order.emplace_back(list + at);

  auto keys = QLXFileMetadata::extendedAttributeKeysWithPath(platform, file);
  EXPECT_EQ(*keys, order);
  auto record = QLXFileMetadata::initWithPath(platform, file);
  const Dictionary* xattrs = record->getExtendedAttributes();
  EXPECT_EQ(xattrs->keys(), order);
  EXPECT_EQ(*xattrs->find("user.alpha")->data(), bytes(binary));
  EXPECT_EQ(*xattrs->find("user.empty")->data(), Data{});
  EXPECT_EQ(*xattrs->find("user.zeta")->data(), bytes("z"));
}

TEST_F(QLXFileMetadataTest, RecordsAreCutShortWhereAValueCannotBeRead) {
  LogCapture log;
  std::string file = dir.write("file", "x");
  fs.failList = file;
  auto truncated = QLXFileMetadata::initWithPath(platform, file);
  ASSERT_TRUE(truncated);
  EXPECT_EQ(truncated->dict().keys(), std::vector<std::string>{"QLXManifestFileAttributes"});
  EXPECT_FALSE(truncated->getHash());
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"Could not extract extended attributes from " + file + ".",
                                      "Could not get attribute keys from file " + file}));

  std::string link = dir / "link";
  ASSERT_EQ(::symlink("file", link.c_str()), 0);
  fs.failLink = link;
  auto noTarget = QLXFileMetadata::initWithPath(platform, link);
  ASSERT_TRUE(noTarget);
  EXPECT_EQ(noTarget->dict().keys(),
            (std::vector<std::string>{"QLXManifestFileAttributes",
                                      "QLXManifestFileExtendedAttributes", "QLXManifestFileHash"}));
  EXPECT_EQ(log.matching("Could not get destination of symbolic link " + link + " with error - ")
                .size(),
            1u);

  fs.failAttributes = file;
  EXPECT_FALSE(QLXFileMetadata::initWithPath(platform, file));
  auto last = log.messages();
  ASSERT_GE(last.size(), 2u);
  EXPECT_EQ(last[last.size() - 2].rfind("Get file attributes failed for " + file + " with error - ", 0),
            0u);
  EXPECT_EQ(last.back(), "Cannot get file attribute for " + file);
}

TEST_F(QLXFileMetadataTest, ListingAndValueFailuresFollowTheTwoCallShape) {
  LogCapture log;
  std::string file = dir.write("file", "x");
  ASSERT_EQ(::setxattr(file.c_str(), "user.gone", "1", 1, 0), 0);
  ASSERT_EQ(::setxattr(file.c_str(), "user.grew", "abcd", 4, 0), 0);
  ASSERT_EQ(::setxattr(file.c_str(), "user.kept", "k", 1, 0), 0);

  // A value that vanished after the listing is left out.
  fs.failValue = "user.gone";
  // A value whose second read fails comes back at its first size, unfilled.
  fs.failSecondValue = "user.grew";
  auto xattrs = QLXFileMetadata::extendedAttributesWithPath(platform, file);
  ASSERT_TRUE(xattrs);
  EXPECT_FALSE(xattrs->contains("user.gone"));
  EXPECT_EQ(*xattrs->find("user.grew")->data(), Data(4, 0));
  EXPECT_EQ(*xattrs->find("user.kept")->data(), bytes("k"));
  EXPECT_TRUE(log.contains("Could not extract extended file attributes from " + file +
                           ", returned -1"));
  EXPECT_TRUE(log.contains("Coud not extract extended file attributes from " + file +
                           ". File is expected to have extended attributes."));

  // Names promised by the size probe but missing on the second call.
  fs.failSecondList = file;
  EXPECT_FALSE(QLXFileMetadata::extendedAttributeKeysWithPath(platform, file));
  EXPECT_TRUE(log.contains("Could not extract extended attributes from " + file +
                           ". File is expected to have extended attributes."));
}

TEST_F(QLXFileMetadataTest, GettersAnswerNothingForValuesOfTheWrongType) {
  QLXFileMetadata foreign(platform, Dictionary{{"QLXManifestFileAttributes", "not a dictionary"},
                                               {"QLXManifestFileHash", "not data"},
                                               {"QLXManifestFileExtendedAttributes", 5},
                                               {"QLXManifestSymbolicLinkTargetFile", Data{1}}});
  EXPECT_FALSE(foreign.getFileAttributes());
  EXPECT_FALSE(foreign.getHash());
  EXPECT_FALSE(foreign.getExtendedAttributes());
  EXPECT_FALSE(foreign.getTargetFile());
  EXPECT_FALSE(foreign.getFileType());
  EXPECT_EQ(foreign.getFileSize(), 0);
  QLXFileMetadata oddSize(platform, Dictionary{{"QLXManifestFileAttributes",
                                                Dictionary{{"FileType", "Regular"},
                                                           {"FileSize", "12"}}}});
  EXPECT_EQ(*oddSize.getFileType(), "Regular");
  EXPECT_EQ(oddSize.getFileSize(), 0);
  QLXFileMetadata empty(platform, {});
  EXPECT_EQ(empty.compareWith(&foreign), 1);
}

}  // namespace
