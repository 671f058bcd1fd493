#include "platform/linux/OpenSslDigestService.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "platform/linux/LinuxFileSystem.h"
#include "platform/testing/Commands.h"
#include "platform/testing/TempDirectory.h"

namespace platform {
namespace {

using testing::hex;

std::span<const std::uint8_t> bytes(const std::string& s) {
  return {reinterpret_cast<const std::uint8_t*>(s.data()), s.size()};
}

TEST(OpenSslDigestServiceTest, Sha1OfKnownInputsAndAReusedContext) {
  OpenSslDigestService service;
  EXPECT_EQ(hex(sha1(service, {})), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
  EXPECT_EQ(hex(sha1(service, bytes("abc"))), "a9993e364706816aba3e25717850c26c9cd0d89d");
  auto digest = service.makeSha1();
  ASSERT_TRUE(digest);
  std::string chunk(1000, 'a');
  for (int i = 0; i < 1000; ++i) digest->update(bytes(chunk));
  EXPECT_EQ(hex(digest->finish()), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
  // finish() starts over: the same context hashes the next input afresh.
  digest->update(bytes("abc"));
  EXPECT_EQ(hex(digest->finish()), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

TEST(LinuxReadableFileTest, ReadsRegularFilesOnlyAndNeverBlocksOnAFifo) {
  LinuxFileSystem fs;
  testing::TempDirectory dir;
  std::string file = dir.write("f", "0123456789");
  auto opened = fs.openForReading(file);
  ASSERT_TRUE(opened) << opened.error().description;
  std::vector<std::uint8_t> buf(4);
  std::string got;
  for (;;) {
    auto n = (*opened)->read(buf);
    ASSERT_TRUE(n);
    if (*n == 0) break;
    got.append(buf.begin(), buf.begin() + static_cast<long>(*n));
  }
  EXPECT_EQ(got, "0123456789");

  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  auto fifo = fs.openForReading(dir / "fifo");
  ASSERT_FALSE(fifo);
  EXPECT_EQ(fifo.error().code, EINVAL);
  EXPECT_EQ(fs.openForReading(dir.path()).error().code, EISDIR);
  EXPECT_EQ(fs.openForReading(dir / "none").error().code, ENOENT);
}

}  // namespace
}  // namespace platform
