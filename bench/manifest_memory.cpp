// How much memory a manifest walk needs beyond the manifest itself.
//
//   manifest_memory TREE
//
// Walks TREE into a manifest and encodes it, reading the process's peak
// resident size (VmHWM) around each step. The manifest's own size is taken
// as what a deep copy of its dictionary adds, so "beyond" is everything
// else the walk and the encoder held at their peaks.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "manifest/QLXManifest.h"
#include "platform/BinaryPropertyListWriter.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/OpenSslDigestService.h"

namespace {

// Kilobytes of a /proc/self/status line such as VmHWM or VmRSS.
long statusKB(const std::string& key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(key + ":", 0) == 0) return std::stol(line.substr(key.size() + 1));
  return -1;
}

// Lets the peak start again from the current size.
void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: manifest_memory TREE\n");
    return 2;
  }
  platform::LinuxFileSystem fileSystem;
  platform::OpenSslDigestService digests;
  platform::Platform& platform = platform::shared();
  platform.fileSystem = &fileSystem;
  platform.digests = &digests;

  long base = statusKB("VmRSS");
  resetPeak();
  QLXManifest manifest(platform);
  if (!manifest.addFilesFromPath(argv[1], argv[1], {}, false)) return 1;
  long walkPeak = statusKB("VmHWM");
  long afterWalk = statusKB("VmRSS");

  platform::Dictionary* copy = new platform::Dictionary(manifest.dict());
  long manifestKB = statusKB("VmRSS") - afterWalk;

  resetPeak();
  long beforeEncode = statusKB("VmRSS");
  platform::Value document(std::move(manifest.dict()));
  auto bytes = platform::encodeBinaryPropertyList(document);
  if (!bytes) return 1;
  long encodePeak = statusKB("VmHWM");

  double entries = static_cast<double>(copy->size());
  std::printf("entries %.0f\n", entries);
  std::printf("manifest itself     %8ld KB  %6.0f B/entry\n", manifestKB,
              manifestKB * 1024.0 / entries);
  long walkBeyond = walkPeak - base - manifestKB;
  std::printf("walk beyond it      %8ld KB  %6.0f B/entry (peak %ld KB)\n", walkBeyond,
              walkBeyond * 1024.0 / entries, walkPeak);
  long encodeBeyond = encodePeak - beforeEncode;
  std::printf("encoding beyond it  %8ld KB  %6.0f B/entry (output %zu KB)\n", encodeBeyond,
              encodeBeyond * 1024.0 / entries, bytes->size() / 1024);
  std::fflush(stdout);
  ::_exit(0);  // no need to free the manifest one object at a time
}
