#include "manifest/QLXFileMetadata.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>

#include "platform/testing/Commands.h"
#include "platform/testing/LinuxTestBed.h"
#include "platform/testing/LogCapture.h"

namespace {

using platform::Data;
using platform::Dictionary;
using platform::Value;
using platform::testing::bytesOf;
using platform::testing::FaultInjectingFileSystem;
using platform::testing::FsCall;
using platform::testing::hex;
using platform::testing::LogCapture;
using platform::testing::run;

class QLXFileMetadataTest : public ::testing::Test, protected platform::testing::LinuxTestBed {
 protected:
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
  std::string locked = dir.write("locked", "secret");
  fs.fail(FsCall::OpenForReading, locked, EACCES);
  LogCapture log;
  auto record = QLXFileMetadata::initWithPath(platform, locked);
  ASSERT_TRUE(record);
  ASSERT_TRUE(record->getHash());
  EXPECT_TRUE(record->getHash()->empty());
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"Cannot read file " + locked,
                                      "Maybe it's an Skylet file (" + locked + ")?"}));

  std::string badDisk = dir.write("bad-disk", std::string(300000, 'x'));
  fs.fail(FsCall::Read, badDisk);
  EXPECT_EQ(QLXFileMetadata::fileHashWithPath(platform, badDisk), Data{});
  EXPECT_TRUE(log.contains("Cannot read data from " + badDisk + "."));
  // The hasher's context starts clean after the failure.
  std::string after = dir.write("after", "abc");
  EXPECT_EQ(hex(*QLXFileMetadata::fileHashWithPath(platform, after)),
            "a9993e364706816aba3e25717850c26c9cd0d89d");
}

// ---- Records

TEST_F(QLXFileMetadataTest, RecordsOfFoldersFilesAndLinks) {
  std::string folder = dir.mkdir("folder");
  auto d = QLXFileMetadata::fileMetadatatWithPath(platform, folder);
  ASSERT_TRUE(d);
  EXPECT_EQ(d->dict().keys(), (std::vector<std::string>{
                                  "QLXManifestFileAttributes", "QLXManifestFileExtendedAttributes",
                                  "QLXManifestFileHash", "QLXManifestSymbolicLinkTargetFile"}));
  EXPECT_EQ(*d->getHash(), Data{});
  EXPECT_EQ(*d->getTargetFile(), "");
  EXPECT_TRUE(d->getExtendedAttributes()->empty());
  EXPECT_EQ(d->getFileSize(), 0);
  EXPECT_EQ(QLXFileMetadata::initWithPath(platform, dir.write("file", "12345"))->getFileSize(), 5);

  // A dangling link: recorded as a link, nothing followed.
  std::string link = dir / "dangling";
  ASSERT_EQ(::symlink("no/such/target", link.c_str()), 0);
  LogCapture log;
  auto l = QLXFileMetadata::fileMetadatatWithPath(platform, link);
  ASSERT_TRUE(l);
  EXPECT_EQ(*l->getFileType(), "SymbolicLink");
  EXPECT_EQ(*l->getTargetFile(), "no/such/target");
  EXPECT_EQ(*l->getHash(), Data{});
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
  EXPECT_EQ(*xattrs->find("user.alpha")->data(), bytesOf(binary));
  EXPECT_EQ(*xattrs->find("user.empty")->data(), Data{});
  EXPECT_EQ(*xattrs->find("user.zeta")->data(), bytesOf("z"));
}

TEST_F(QLXFileMetadataTest, RecordsAreCutShortWhereAValueCannotBeRead) {
  LogCapture log;
  std::string file = dir.write("file", "x");
  fs.fail(FsCall::ListExtendedAttributes, file);
  auto truncated = QLXFileMetadata::initWithPath(platform, file);
  ASSERT_TRUE(truncated);
  EXPECT_EQ(truncated->dict().keys(), std::vector<std::string>{"QLXManifestFileAttributes"});
  EXPECT_FALSE(truncated->getHash());
  EXPECT_EQ(log.messages(),
            (std::vector<std::string>{"Could not extract extended attributes from " + file + ".",
                                      "Could not get attribute keys from file " + file}));

  std::string link = dir / "link";
  ASSERT_EQ(::symlink("file", link.c_str()), 0);
  fs.fail(FsCall::DestinationOfSymbolicLink, link);
  auto noTarget = QLXFileMetadata::initWithPath(platform, link);
  ASSERT_TRUE(noTarget);
  EXPECT_EQ(noTarget->dict().keys(),
            (std::vector<std::string>{"QLXManifestFileAttributes",
                                      "QLXManifestFileExtendedAttributes", "QLXManifestFileHash"}));
  EXPECT_EQ(
      log.matching("Could not get destination of symbolic link " + link + " with error - ").size(),
      1u);

  fs.fail(FsCall::AttributesOfItem, file);
  EXPECT_FALSE(QLXFileMetadata::initWithPath(platform, file));
  auto last = log.messages();
  ASSERT_GE(last.size(), 2u);
  EXPECT_EQ(
      last[last.size() - 2].rfind("Get file attributes failed for " + file + " with error - ", 0),
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
  fs.fail(FsCall::GetExtendedAttribute, "user.gone", ENODATA);
  // A value whose second read fails comes back at its first size, unfilled.
  fs.fail(FsCall::GetExtendedAttributeAgain, "user.grew", ERANGE);
  auto xattrs = QLXFileMetadata::extendedAttributesWithPath(platform, file);
  ASSERT_TRUE(xattrs);
  EXPECT_FALSE(xattrs->contains("user.gone"));
  EXPECT_EQ(*xattrs->find("user.grew")->data(), Data(4, 0));
  EXPECT_EQ(*xattrs->find("user.kept")->data(), bytesOf("k"));
  EXPECT_TRUE(
      log.contains("Could not extract extended file attributes from " + file + ", returned -1"));
  EXPECT_TRUE(log.contains("Coud not extract extended file attributes from " + file +
                           ". File is expected to have extended attributes."));

  // Names promised by the size probe but missing on the second call.
  fs.fail(FsCall::ListExtendedAttributesAgain, file);
  EXPECT_FALSE(QLXFileMetadata::extendedAttributeKeysWithPath(platform, file));
  EXPECT_TRUE(log.contains("Could not extract extended attributes from " + file +
                           ". File is expected to have extended attributes."));
}

TEST_F(QLXFileMetadataTest, GettersAnswerNothingForValuesOfTheWrongType) {
  QLXFileMetadata foreign(platform, Dictionary{{"QLXManifestFileAttributes", "not a dictionary"},
                                               {"QLXManifestFileHash", "not data"},
                                               {"QLXManifestFileExtendedAttributes", 5},
                                               {"QLXManifestSymbolicLinkTargetFile", Data{1}}});
  EXPECT_FALSE(foreign.getFileAttributes() || foreign.getHash() ||
               foreign.getExtendedAttributes() || foreign.getTargetFile() || foreign.getFileType());
  QLXFileMetadata oddSize(platform,
                          Dictionary{{"QLXManifestFileAttributes",
                                      Dictionary{{"FileType", "Regular"}, {"FileSize", "12"}}}});
  EXPECT_EQ(oddSize.getFileSize(), 0);
  EXPECT_EQ(QLXFileMetadata(platform, {}).compareWith(&foreign), 1);
}

}  // namespace
