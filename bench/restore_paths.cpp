// What reaching staged files through a held folder costs against changing
// them by path, for the attribute restore.
//
//   restore_paths [FILES]
//
// Makes FILES files (2,000 unless given) three folders deep in a temporary
// folder, then restores one record (owner, mode, date, an extended
// attribute) onto every file, alternately by path and through
// openConfinedFolder/openItem, five rounds each. Prints the median time of
// each, their ratio and the load average.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "manifest/QLXFileMetadata.h"
#include "platform/FileSystem.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/testing/TempDirectory.h"

namespace {

using Clock = std::chrono::steady_clock;

double medianMs(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  std::string text;
  std::getline(in, text);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  int count = argc > 1 ? std::stoi(argv[1]) : 2000;
  platform::LinuxFileSystem fileSystem;
  platform::Platform& platform = platform::shared();
  platform.fileSystem = &fileSystem;
  platform::testing::TempDirectory dir;

  std::vector<std::string> relative;
  for (int i = 0; i < count; ++i) {
    std::string name = "/a" + std::to_string(i % 10) + "/b" + std::to_string(i % 7) + "/c" +
                       std::to_string(i % 5) + "/file" + std::to_string(i);
    dir.write(name.substr(1), "staged");
    relative.push_back(name);
  }
  QLXFileMetadata record(
      platform, platform::Dictionary{
                    {QLXFileMetadata::kFileAttributesKey,
                     platform::Dictionary{{"FileType", "Regular"},
                                          {"FilePosixPermissions", 0640},
                                          {"FileModificationDate", platform::Date{1709209800}}}},
                    {QLXFileMetadata::kExtendedAttributesKey,
                     platform::Dictionary{{"user.velmor.origin", platform::Data{'s', 't'}}}}});

  std::vector<double> byPath, held;
  for (int round = 0; round < 5; ++round) {
    auto start = Clock::now();
    for (const std::string& name : relative)
      if (!record.restoreAttribuesToPath(dir.path() + name)) return 1;
    byPath.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());

    start = Clock::now();
    auto folder = fileSystem.openConfinedFolder(dir.path());
    for (const std::string& name : relative) {
      auto item = folder->openItem(name);
      if (!record.restoreAttribuesToPath(dir.path() + name, *item)) return 1;
    }
    held.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  double path = medianMs(byPath), confined = medianMs(held);
  std::printf("files: %d, three folders deep\n", count);
  std::printf("by path:            %8.1f ms (median of 5)\n", path);
  std::printf("held below a folder: %7.1f ms (median of 5)\n", confined);
  std::printf("ratio held/path:     %7.2f\n", confined / path);
  std::printf("load average: %s\n", loadAverage().c_str());
  return 0;
}
