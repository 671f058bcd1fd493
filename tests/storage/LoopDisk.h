// A real data disk for the storage tests: a loop device with 4096-byte
// sectors carrying the volume manager's GPT, in a private mount namespace,
// with private device nodes for its partitions. Skips (saying why) without
// root, loop devices, btrfs or the tools; detaches its loop device by name.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/DeviceProperties.h"
#include "platform/linux/LinuxVolumeLayer.h"

namespace storage_loop {

constexpr std::uint64_t kBlock = 4096;
constexpr std::uint64_t kMiB = 1 << 20;

struct Ran {
  int status;
  std::string output;
};
// Status and output (standard error included) of a shell command.
Ran run(const std::string& command);
std::string firstLine(std::string text);

// "DiskUsage" of the mounted Data file system, as the device reports it.
class StatvfsDiskUsage : public platform::DeviceProperties {
 public:
  std::string mountPoint;
  std::optional<platform::Value> copyAnswer(const std::string& question) override;
};

struct Extent {
  std::uint64_t first, last;  // blocks
  std::uint64_t bytes() const { return (last - first + 1) * kBlock; }
};

class LoopDisk : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Makes a 1.5 GiB disk, maps its partitions and wires the services.
  void makeDisk(const std::string& sizes);
  std::string partName(int k) const { return loopName + "p" + std::to_string(k); }
  // A private node for partition k, remade for its current device number.
  std::string node(int k);
  void formatAndMount(int k, const std::string& where);
  Extent entry(int i);
  // Blocks 1 and 2 as they are on the disk.
  std::vector<std::uint8_t> tableBlocks();
  // The kernel's mapping of partition k, in bytes.
  std::pair<std::uint64_t, std::uint64_t> kernel(int k);
  std::uint64_t fileSystemSize(const std::string& where);
  std::string hashOfFile();
  // Fills partition k with random bytes; their hash.
  std::string fillWithPattern(int k);
  // The hash of all of partition k, read through a fresh node.
  std::string hashOfPartition(int k);
  void writeDisk(const std::vector<std::uint8_t>& bytes, std::uint64_t offset);
  std::vector<std::uint8_t> readDisk(std::uint64_t offset, std::size_t length);
  void expectTableValid();
  void expectDiskAndFileSystemHealthy();
  void expectKernelFollowsTable(int partitions);

  std::string folder, loop, loopName;
  std::vector<std::string> mounted;
  std::unique_ptr<platform::LinuxVolumeLayer> layer;
  StatvfsDiskUsage usage;
};

}  // namespace storage_loop
