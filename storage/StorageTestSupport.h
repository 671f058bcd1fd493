// Shared by the storage tests: an in-memory data disk laid out by the test
// disk builder, services wired to it, and capture of what the driver says.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/DeviceProperties.h"
#include "platform/GptDisk.h"
#include "platform/testing/CapturedStderr.h"
#include "platform/testing/MemoryVolumeLayer.h"
#include "storage/GPTRecord.h"
#include "storage/MarlVolume.h"
#include "storage/PartitionTable.h"
#include "storage/StorageServices.h"

namespace storage::testing {

using platform::testing::capturedStderr;

class FakeDeviceProperties : public platform::DeviceProperties {
 public:
  std::optional<platform::Value> diskUsage;
  std::optional<platform::Value> copyAnswer(const std::string& question) override {
    return question == "DiskUsage" ? diskUsage : std::nullopt;
  }
};

// 1024 blocks of 4096 bytes: usable blocks 5 to 1021 (3 and 4 hold the
// volume layer's move record).
class DiskTest : public ::testing::Test {
 protected:
  static constexpr std::uint64_t kBlocks = 1024;
  static constexpr std::uint64_t kBlock = 4096;
  static constexpr std::uint64_t kFirstUsable = 5;
  static constexpr std::uint64_t kLastUsable = 1021;

  void SetUp() override {
    for (auto& row : partition_name_table) row.index = -1;
    services.volumes = &volumes;
    services.deviceProperties = &properties;
    services.uuidForBSDName = volumeLayerUUIDLookup(&volumes);
    makeDisk({{"System", 98}, {"Data", 0}, {"Update", 100}});
  }

  void makeDisk(const std::vector<platform::gpt::PartitionSpec>& partitions) {
    std::fill(volumes.disk.begin(), volumes.disk.end(), 0);
    platform::gpt::DiskLayout layout;
    layout.blockCount = kBlocks;
    layout.partitions = partitions;
    auto image = platform::gpt::buildDisk(layout);
    ASSERT_TRUE(image.ok()) << image.error().description;
    for (const auto& w : image->writes) {
      std::copy(w.bytes.begin(), w.bytes.end(), volumes.disk.begin() + w.offset);
    }
    volumes.events.clear();
    volumes.writes.clear();
  }

  GPTHeader header() const {
    GPTHeader h;
    std::copy_n(volumes.disk.begin() + kBlock, h.bytes.size(), h.bytes.begin());
    return h;
  }
  GPTEntry entry(int i) const {
    GPTEntry e;
    std::copy_n(volumes.disk.begin() + 2 * kBlock + i * 128, e.bytes.size(), e.bytes.begin());
    return e;
  }
  std::string uuidOf(int i) const {
    GPTEntry e = entry(i);
    return uuidText(uuidFromGPTOrder(e.uniqueGUID()));
  }

  // Mounts the Marl file system of entry i on mountPoint from /dev/<bsdName>.
  void mount(int i, const std::string& bsdName, const std::string& mountPoint) {
    volumes.mounts.push_back({"marl", mountPoint, "/dev/" + bsdName});
    volumes.partitionUUIDs["/dev/" + bsdName] = uuidOf(i);
  }

  platform::testing::MemoryVolumeLayer volumes{kBlocks};
  FakeDeviceProperties properties;
  StorageServices services;
};

}  // namespace storage::testing
