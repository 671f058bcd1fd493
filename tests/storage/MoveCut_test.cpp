// A partition move on a real loop disk cut short by SIGKILL at several
// points: mapping the disk again finishes it, and Update keeps every byte.
// The move runs in a child process whose block I/O kills it on entering its
// Nth write, as a killed daemon would stop.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/GptDisk.h"
#include "platform/MoveRecord.h"
#include "platform/testing/FaultInjectingBlockIo.h"
#include "tests/storage/LoopDisk.h"

namespace storage_loop {
namespace {

using platform::testing::FaultInjectingBlockIo;

class MoveCut : public LoopDisk {
 protected:
  // The table with Data ending at dataLast and Update right behind it.
  std::vector<std::uint8_t> resized(std::uint64_t dataLast) {
    auto t = tableBlocks();
    const Extent update = entry(2);
    std::uint8_t* entries = &t[kBlock];
    platform::gpt::store64(entries + 128 + platform::gpt::kLastLba, dataLast);
    platform::gpt::store64(entries + 256 + platform::gpt::kFirstLba, dataLast + 1);
    platform::gpt::store64(entries + 256 + platform::gpt::kLastLba,
                           dataLast + 1 + update.last - update.first);
    return t;
  }

  // Writes the table through the volume layer, killed on entering write
  // killAt (0: never); the writes made when it was not killed.
  std::size_t writeTable(const std::vector<std::uint8_t>& table, std::size_t killAt) {
    pid_t child = ::fork();
    if (child == 0) {
      static std::size_t writes = 0;
      layer->wrapBlockIo([killAt](std::unique_ptr<platform::BlockIo> io) {
        auto killing = std::make_unique<FaultInjectingBlockIo>(std::move(io));
        killing->beforeCall = [killAt](const FaultInjectingBlockIo::Call& call, std::size_t) {
          if (call.kind == 'w' && ++writes == killAt) ::kill(::getpid(), SIGKILL);
        };
        return std::unique_ptr<platform::BlockIo>(std::move(killing));
      });
      auto disk = layer->openDisk("/dev/rdisk0s1", platform::VolumeLayer::kReadWrite);
      const bool ok = disk && (*disk)->pwrite(table, kBlock);
      ::_exit(ok ? std::min<std::size_t>(writes, 250) : 255);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    if (killAt) {
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "status " << status;
      return 0;
    }
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) < 250) << "status " << status;
    return WEXITSTATUS(status);
  }
};

TEST_F(MoveCut, AMoveKilledAtAnyPointIsFinishedWhenTheDiskIsMappedAgain) {
  ASSERT_NO_FATAL_FAILURE(makeDisk("--system 64M --data 512M --update 16M"));
  const std::string update = fillWithPattern(3);
  // Update moves back and forth by 2 MiB, over its own blocks: every step of
  // the copy is a record update.
  const std::uint64_t wide = entry(1).last, narrow = wide - 2 * kMiB / kBlock;
  const std::size_t writes = writeTable(resized(narrow), 0);
  ASSERT_GT(writes, 10u);
  ASSERT_EQ(entry(1).last, narrow);
  ASSERT_TRUE(layer->mapPartitions("/dev/rdisk0s1").ok());  // the child's mapping is ours too
  ASSERT_EQ(hashOfPartition(3), update);

  // The first record, the copy's first step and its middle, the table, and
  // the clearing of the record.
  for (std::size_t killAt : {std::size_t(1), std::size_t(2), writes / 2, writes - 4, writes - 1}) {
    SCOPED_TRACE("killed on entering write " + std::to_string(killAt) + " of " +
                 std::to_string(writes));
    const bool wasNarrow = entry(1).last == narrow;
    writeTable(resized(wasNarrow ? wide : narrow), killAt);
    auto mapped = layer->mapPartitions("/dev/rdisk0s1");
    ASSERT_TRUE(mapped.ok()) << mapped.error().description;
    // Killed before the first record was written, the old table stands.
    EXPECT_EQ(entry(1).last == narrow, killAt == 1 ? wasNarrow : !wasNarrow);
    EXPECT_EQ(hashOfPartition(3), update);
    EXPECT_FALSE(platform::decodeMoveRecord(readDisk(3 * kBlock, kBlock)));
    EXPECT_FALSE(platform::decodeMoveRecord(readDisk(4 * kBlock, kBlock)));
    expectTableValid();
    expectKernelFollowsTable(3);
  }
}

}  // namespace
}  // namespace storage_loop
