// qlx-mapdisk: maps the data disk's partitions in the kernel as its table
// lists them, after finishing any partition move the volume layer recorded
// and did not finish (the helper killed, the power cut). Run before
// anything on the disk is mounted: at boot on a device, at sandbox start.
#include <cstdio>
#include <string_view>

#include "platform/linux/LinuxVolumeLayer.h"
#include "vexd_version.h"

namespace {

constexpr const char* kUsage =
    "usage: qlx-mapdisk DEVICE\n"
    "\n"
    "Finishes a partition move recorded on DEVICE, the whole-disk block device\n"
    "of the data disk, then adds, moves, resizes and removes its kernel partitions\n"
    "(BLKPG) until they match its partition table.\n";

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h")) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  if (argc == 2 && std::string_view(argv[1]) == "--version") {
    std::printf("qlx-mapdisk %s\n", VEXD_VERSION);
    return 0;
  }
  if (argc != 2 || argv[1][0] == '-') {
    std::fputs(kUsage, stderr);
    return 2;
  }
  platform::LinuxVolumeLayer layer;
  platform::Status mapped = layer.mapPartitions(argv[1]);
  if (!mapped) {
    std::fprintf(stderr, "qlx-mapdisk: %s: %s\n", argv[1], mapped.error().description.c_str());
    return 1;
  }
  return 0;
}
