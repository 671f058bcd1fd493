// What the safety checks in front of libplist cost: our parse (checks,
// libplist, conversion to Value) against libplist's bare parse and free of
// the same bytes, on a manifest-shaped property list.
#include <benchmark/benchmark.h>
#include <plist/plist.h>

#include <string>

#include "platform/PropertyList.h"
#include "platform/linux/PlistInputCheck.h"

namespace {

// One record per file, much like a device manifest.
platform::Data manifestLike(int files) {
  platform::Dictionary manifest;
  for (int i = 0; i < files; ++i) {
    platform::Dictionary attributes{{"FileType", "Regular"},
                                    {"FileSize", std::uint64_t{4096} + i},
                                    {"FileOwnerAccountName", "mobile"},
                                    {"FilePosixPermissions", 0644},
                                    {"FileModificationDate", platform::Date{1.7e9 + i}}};
    platform::Dictionary record{{"QLXManifestFileAttributes", attributes},
                                {"QLXManifestFileExtendedAttributes", platform::Dictionary{}},
                                {"QLXManifestFileHash", platform::Data(20, 0xab)}};
    manifest.set("/Library/Demo/file-" + std::to_string(i), record);
  }
  return *platform::writeBinaryPropertyList(platform::Value(manifest));
}

const platform::Data& sample() {
  static const platform::Data bytes = manifestLike(5000);
  return bytes;
}

void BM_ParseChecked(benchmark::State& state) {
  const auto& bytes = sample();
  for (auto _ : state) benchmark::DoNotOptimize(platform::parsePropertyList(bytes));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void BM_ParseLibplistOnly(benchmark::State& state) {
  const auto& bytes = sample();
  for (auto _ : state) {
    plist_t root = nullptr;
    plist_from_bin(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::uint32_t>(bytes.size()), &root);
    benchmark::DoNotOptimize(root);
    plist_free(root);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

void BM_CheckOnly(benchmark::State& state) {
  const auto& bytes = sample();
  for (auto _ : state) benchmark::DoNotOptimize(platform::checkBinaryPropertyList(bytes));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}

BENCHMARK(BM_CheckOnly)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseChecked)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseLibplistOnly)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
