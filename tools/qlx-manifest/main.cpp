// qlx-manifest: how a content engineer makes, reads and compares device
// manifests on a workstation or on the device.
//
//   qlx-manifest create ROOT [--relative-to BASE] [--skip PATH]... [--inclusive]
//                [--progress] [--hash-threads N] -o FILE
//   qlx-manifest show FILE
//   qlx-manifest diff A B
//
// create and show exit 0 on success and 2 on trouble; diff exits 0 when the
// manifests are equal, 1 when they differ and 2 on trouble, as diff(1) does.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "manifest/QLXFileMetadata.h"
#include "manifest/QLXManifest.h"
#include "manifest/QLXManifestWriter.h"
#include "manifest/QLXProgressUpdater.h"
#include "platform/BinaryPropertyListWriter.h"
#include "platform/FileSystem.h"
#include "platform/Platform.h"
#include "platform/PropertyList.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/OpenSslDigestService.h"
#include "vexd_version.h"

namespace {

using platform::Data;
using platform::Dictionary;
using platform::Value;

constexpr int kTrouble = 2;

// On request (--help) the usage goes to standard output and is no error.
int usage(std::FILE* to = stderr) {
  std::fputs(
      "usage: qlx-manifest create ROOT [--relative-to BASE] [--skip PATH]... [--inclusive]\n"
      "                          [--progress] [--hash-threads N] -o FILE\n"
      "       qlx-manifest show FILE\n"
      "       qlx-manifest diff A B\n"
      "       qlx-manifest --help | --version\n",
      to);
  return to == stdout ? 0 : kTrouble;
}

int fail(const std::string& message) {
  std::fprintf(stderr, "qlx-manifest: %s\n", message.c_str());
  return kTrouble;
}

bool writeAll(const std::string& path, const Data& bytes) {
  std::FILE* out = path == "-" ? stdout : std::fopen(path.c_str(), "wbe");
  if (!out) return false;
  bool ok = std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
  ok = (path == "-" ? std::fflush(out) : std::fclose(out)) == 0 && ok;
  return ok;
}

int create(platform::Platform& platform, std::vector<std::string> args) {
  std::string root, base, output;
  std::vector<std::string> skip;
  bool inclusive = false;
  bool progress = false;
  long threads = -1;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&](std::string& into) {
      if (i + 1 >= args.size()) return false;
      into = args[++i];
      return true;
    };
    std::string text;
    if (a == "--relative-to") {
      if (!value(base)) return usage();
    } else if (a == "--skip") {
      if (!value(text)) return usage();
      skip.push_back(text);
    } else if (a == "--inclusive") {
      inclusive = true;
    } else if (a == "--progress") {
      progress = true;
    } else if (a == "--hash-threads") {
      if (!value(text)) return usage();
      char* end = nullptr;
      threads = std::strtol(text.c_str(), &end, 10);
      if (*end != '\0' || threads < 0 || threads > 64) return usage();
    } else if (a == "-o") {
      if (!value(output)) return usage();
    } else if (root.empty() && !a.empty() && a[0] != '-') {
      root = a;
    } else {
      return usage();
    }
  }
  if (root.empty() || output.empty()) return usage();
  if (base.empty()) base = root;

  QLXManifest manifest(platform);
  if (threads >= 0) manifest.setHashThreads(static_cast<unsigned>(threads));
  QLXProgressUpdater updater([](std::int64_t percent) {
    std::fprintf(stderr, "Progress: %lld\n", static_cast<long long>(percent));
  });
  if (progress) manifest.setProgressUpdater(&updater);
  if (output != "-") {
    // As the service writes it: records streamed to the file as they come.
    QLXManifestWriter writer(*platform.fileSystem, output);
    if (!manifest.enumerateAndCollectMetaData(
            root, base, skip, inclusive,
            [&writer](QLXFileMetadata& record, const std::string& relative) {
              writer.add(std::move(record), relative);
              return true;
            }))
      return fail("could not make a manifest of " + root);
    if (platform::Status written = writer.commit(); !written)
      return fail("cannot write " + output + ": " + written.error().description);
    return 0;
  }
  if (!manifest.addFilesFromPath(root, base, skip, inclusive))
    return fail("could not make a manifest of " + root);
  // Handed over, not copied: the manifest is the largest thing in memory.
  // Written by our own encoder: libplist 2.2 takes seconds on a manifest of
  // tens of thousands of records.
  Value document(std::move(manifest.dict()));
  auto bytes = platform::encodeBinaryPropertyList(document);
  if (!bytes) return fail("cannot write the manifest: " + bytes.error().description);
  if (!writeAll(output, *bytes))
    return fail("cannot write " + output + ": " + std::strerror(errno));
  // Done: freeing a large manifest object by object would take longer than
  // the encoding did, and the process ends anyway.
  std::fflush(stderr);
  ::_exit(0);
}

std::optional<Dictionary> load(const std::string& path) {
  auto value = platform::readPropertyListFile(path);
  if (!value) {
    fail("cannot read " + path + ": " + value.error().description);
    return std::nullopt;
  }
  if (!value->dictionary()) {
    fail(path + " is not a manifest (its top level is not a dictionary)");
    return std::nullopt;
  }
  return std::move(*value->dictionary());
}

std::string hex(const Data& d) {
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (std::uint8_t b : d) {
    out += kHex[b >> 4];
    out += kHex[b & 15];
  }
  return out;
}

// A value as a person reads it: text bare, bytes as hex (0x...).
std::string printable(const Value& v) {
  if (const Data* d = v.data()) return "0x" + hex(*d);
  return v.description();
}

std::string attribute(const Dictionary* attrs, const char* key) {
  const Value* v = attrs ? attrs->find(key) : nullptr;
  return v ? v->description() : "?";
}

void showEntry(const std::string& path, const QLXFileMetadata& record) {
  const Dictionary* attrs = record.getFileAttributes();
  const std::string* type = record.getFileType();
  std::string line = path + "  " + (type ? *type : "?");
  const Value* mode = attrs ? attrs->find(platform::attr::kPosixPermissions) : nullptr;
  char modeText[16] = "?";
  if (mode && mode->isInteger())
    std::snprintf(modeText, sizeof modeText, "%04llo",
                  static_cast<unsigned long long>(mode->uint64Value() & 07777));
  line += "  " + std::string(modeText);
  line += "  " + attribute(attrs, platform::attr::kOwnerAccountID) + ":" +
          attribute(attrs, platform::attr::kGroupOwnerAccountID);
  line += "  size=" + attribute(attrs, platform::attr::kFileSize);
  line += "  mtime=" + attribute(attrs, platform::attr::kModificationDate);
  if (type && *type == platform::attr::kTypeRegular) {
    const Data* hash = record.getHash();
    line += "  sha1=" + (hash ? (hash->empty() ? std::string("(unread)") : hex(*hash)) : "?");
  }
  if (type && *type == platform::attr::kTypeSymbolicLink) {
    const std::string* target = record.getTargetFile();
    line += "  -> " + (target ? *target : std::string("?"));
  }
  std::puts(line.c_str());
  if (const Dictionary* xattrs = record.getExtendedAttributes()) {
    for (const auto& [name, value] : *xattrs)
      std::printf("    %s = %s\n", name.c_str(), printable(value).c_str());
  }
}

std::vector<std::string> sortedPaths(const Dictionary& dict) {
  std::vector<std::string> paths = dict.keys();
  std::sort(paths.begin(), paths.end());
  return paths;
}

int show(platform::Platform& platform, const std::string& path) {
  auto dict = load(path);
  if (!dict) return kTrouble;
  QLXManifest manifest(platform, std::move(*dict));
  for (const std::string& entry : sortedPaths(manifest.dict())) {
    auto record = manifest.metadataForFile(entry);
    if (record)
      showEntry(entry, *record);
    else
      std::printf("%s  (not a record)\n", entry.c_str());
  }
  return 0;
}

const char* meaning(std::int32_t code) {
  switch (code) {
    case 0:
      return "missing";
    case 1:
      return "file type differs";
    case 2:
      return "contents differ";
    case 3:
      return "link target differs";
    case 4:
      return "owner, group or permissions differ";
    case 5:
      return "extended attributes differ";
    default:
      return "same";
  }
}

int diff(platform::Platform& platform, const std::string& a, const std::string& b) {
  auto left = load(a);
  if (!left) return kTrouble;
  auto right = load(b);
  if (!right) return kTrouble;
  QLXManifest first(platform, std::move(*left));
  QLXManifest second(platform, std::move(*right));
  std::set<std::string> paths = first.pathSet();
  for (const std::string& p : second.pathSet()) paths.insert(p);
  int differences = 0;
  for (const std::string& path : paths) {
    auto mine = first.metadataForFile(path);
    auto theirs = second.metadataForFile(path);
    std::int32_t code;
    if (!mine) {
      // Compared from the other side, so an entry only in B reads as code 0 too.
      code = theirs ? theirs->compareWith(nullptr) : 6;
      if (code != 6) std::printf("+ %s: %d only in %s\n", path.c_str(), code, b.c_str());
    } else {
      code = mine->compareWith(theirs ? &*theirs : nullptr);
      if (code == 0)
        std::printf("- %s: %d only in %s\n", path.c_str(), code, a.c_str());
      else if (code != 6)
        std::printf("! %s: %d %s\n", path.c_str(), code, meaning(code));
    }
    differences += code != 6;
  }
  return differences == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty()) return usage();
  if (args.size() == 1 && (args[0] == "--help" || args[0] == "-h")) return usage(stdout);
  if (args.size() == 1 && args[0] == "--version") {
    std::printf("qlx-manifest %s\n", VEXD_VERSION);
    return 0;
  }
  platform::LinuxFileSystem fileSystem;
  platform::OpenSslDigestService digests;
  platform::Platform& platform = platform::shared();
  platform.fileSystem = &fileSystem;
  platform.digests = &digests;

  std::string command = args[0];
  args.erase(args.begin());
  if (command == "create") return create(platform, args);
  if (command == "show" && args.size() == 1) return show(platform, args[0]);
  if (command == "diff" && args.size() == 2) return diff(platform, args[0], args[1]);
  return usage();
}
