#include "manifest/QLXManifest.h"

#include <cctype>
#include <string_view>
#include <thread>

#include "logging/QLXHLog.h"
#include "manifest/QLXHashingEnumerator.h"
#include "manifest/QLXProgressUpdater.h"
#include "platform/FileSystem.h"
#include "platform/Path.h"

using platform::Dictionary;
using platform::ResourceKey;
using platform::Value;

namespace {

// The method texts of the two enumeration error handlers.
constexpr const char* kWalkErrorHandler =
    "__77-[QLXManifest enumerateAndCollectMetaData:relativeTo:skip:inclusive:handler:]_block_"
    "invoke";
constexpr const char* kTotalErrorHandler =
    "__48-[QLXManifest calculateTotalFileSize:skipPaths:]_block_invoke";

// Joins with exactly one slash and tidies the result as a path: runs of
// slashes become one and a trailing slash goes, except for "/" itself.
std::string appendingPathComponent(const std::string& base, const std::string& component) {
  std::string joined = base.empty() ? component : base + "/" + component;
  std::string out;
  for (char c : joined) {
    if (c == '/' && !out.empty() && out.back() == '/') continue;
    out += c;
  }
  if (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

std::string replacingOccurrences(const std::string& text, const std::string& what) {
  std::string out;
  std::size_t at = 0;
  for (std::size_t found; (found = text.find(what, at)) != std::string::npos;) {
    out.append(text, at, found - at);
    at = found + what.size();
  }
  out.append(text, at, std::string::npos);
  return out;
}

// The path below the root, with every occurrence of the root's text removed
// (deliberately all of them); nothing when the root is not in the path.
std::optional<std::string> relativePathOf(const std::string& path, const std::string& root) {
  if (root.empty()) return std::nullopt;  // an empty text is found nowhere
  std::size_t at = path.find(root);
  if (at == std::string::npos) return std::nullopt;
  if (at == 0) return replacingOccurrences(path, root);
  return replacingOccurrences(path.substr(at + root.size()), root);
}

// How the platform prints a file URL.
std::string fileURL(const std::string& path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out = "file://";
  for (unsigned char c : path) {
    if (std::isalnum(c) || std::string_view("/-._~!$&'()*+,;=:@").find(static_cast<char>(c)) !=
                               std::string_view::npos) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

}  // namespace

QLXManifest::QLXManifest(platform::Platform& platform) : QLXManifest(platform, Dictionary{}) {}

QLXManifest::QLXManifest(platform::Platform& platform, Dictionary dict)
    : platform_(platform),
      dict_(std::move(dict)),
      hashThreads_(std::thread::hardware_concurrency()) {}

std::optional<QLXFileMetadata> QLXManifest::metadataForFile(const std::string& relativePath) const {
  const Value* entry = dict_.find(relativePath);
  if (!entry || !entry->dictionary()) return std::nullopt;
  return QLXFileMetadata::fileMetaDataWithMetadataDictionary(platform_, *entry->dictionary());
}

void QLXManifest::setMetadata(const QLXFileMetadata& record, const std::string& relativePath) {
  dict_.set(relativePath, record.dict());
}

void QLXManifest::setMetadata(QLXFileMetadata&& record, const std::string& relativePath) {
  dict_.set(relativePath, std::move(record).takeDict());
}

std::set<std::string> QLXManifest::pathSet() const {
  std::set<std::string> paths;
  for (const auto& [path, value] : dict_) paths.insert(path);
  return paths;
}

bool QLXManifest::folderContains(const std::vector<std::string>& folders, const std::string& path) {
  for (const std::string& folder : folders) {
    if (folder.empty() || path.rfind(folder, 0) != 0) continue;
    if (folder.size() == path.size()) return true;
    if (appendingPathComponent(folder, path.substr(folder.size())) == path) return true;
  }
  return false;
}

bool QLXManifest::addFilesFromPath(const std::string& start, const std::string& relativeTo,
                                   const std::vector<std::string>& skip, bool inclusive) {
  return enumerateAndCollectMetaData(start, relativeTo, skip, inclusive,
                                     [this](QLXFileMetadata& record, const std::string& path) {
                                       setMetadata(std::move(record), path);
                                       return true;
                                     });
}

bool QLXManifest::enumerateAndCollectMetaData(const std::string& start,
                                              const std::string& relativeTo,
                                              const std::vector<std::string>& skip, bool inclusive,
                                              const Handler& handler) {
  if (rootPath_) {
    QLXHDebugLog("rootPath already specified. Could not add more files.");
    return false;
  }
  rootPath_ = relativeTo;
  std::int64_t total = calculateTotalFileSize(start, skip);
  if (progressUpdater_) progressUpdater_->initializePercentageWithTotal(total);

  platform::FileSystem& fs = *platform_.fileSystem;
  QLXHashingEnumerator entries(
      fs, *platform_.digests, start,
      [&skip](const std::string& path) { return folderContains(skip, path); }, hashThreads_);
  std::optional<std::string> relativePath;
  bool startTaken = false;
  for (;;) {
    std::optional<QLXHashingEnumerator::Item> item = entries.next();
    if (item && item->kind == QLXHashingEnumerator::Item::Kind::EnumerationError) {
      QLXHLog("%s: Could not enumerate %@, url=%@, error=%@", kWalkErrorHandler, item->path,
              fileURL(item->path), *item->error);
      continue;
    }
    // Without inclusive, an empty enumeration is a complete, empty walk.
    if (!item && (!inclusive || startTaken)) return true;
    // With it, the start folder itself comes last, after all of its contents.
    if (!item) startTaken = true;
    const std::string& path = item ? item->path : start;
    if (folderContains(skip, path)) continue;

    bool values[3] = {};
    for (ResourceKey key :
         {ResourceKey::IsRegularFile, ResourceKey::IsDirectory, ResourceKey::IsSymbolicLink}) {
      auto value = item ? item->resourceValue(key) : fs.resourceValue(start, key);
      if (!value) {
        QLXHLog("Could not get resource for key %@", platform::resourceKeyName(key));
        return false;
      }
      values[static_cast<int>(key)] = *value;
    }
    if (!values[0] && !values[1] && !values[2]) {
      QLXHLog("%@ is special file. Leave it along", path);
      continue;
    }

    if (rootPath_) {
      if (auto relative = relativePathOf(path, *rootPath_)) relativePath = std::move(relative);
    }
    if (!relativePath || relativePath->empty()) relativePath.emplace(1, '/');

    auto record = QLXFileMetadata::fileMetadatatWithPath(platform_, path, &entries);
    if (!record) {
      // A vanished or unreadable object ends the walk without failing it.
      QLXHLog("Couldn't get meta data for %@", path);
      return true;
    }
    if (!handler(*record, *relativePath)) {
      QLXHLog("Couldn't run handler against %@", path);
      return false;
    }
    if (progressUpdater_)
      progressUpdater_->updatePercentageWithIncrement(
          static_cast<std::int64_t>(fileSizeToAdjustPercentage(path)));
  }
}

std::int64_t QLXManifest::calculateTotalFileSize(const std::string& start,
                                                 const std::vector<std::string>& skipPaths) {
  platform::FileSystem& fs = *platform_.fileSystem;
  auto entries =
      fs.enumeratorAtPath(start, [](const std::string& path, const platform::Error& error) {
        QLXHLog("%s: Could not enumerate %@, url=%@, error=%@", kTotalErrorHandler, path,
                fileURL(path), error);
        return true;
      });
  std::int64_t total = 0;
  while (auto path = entries->nextPath()) {
    if (folderContains(skipPaths, *path)) {
      entries->skipDescendants();  // skipped trees are never entered
      continue;
    }
    bool regular = false;
    bool link = false;
    for (auto [key, out] : {std::pair{ResourceKey::IsRegularFile, &regular},
                            std::pair{ResourceKey::IsSymbolicLink, &link}}) {
      auto value = entries->resourceValue(key);
      if (value)
        *out = *value;
      else
        QLXHLog("Could not get resource for key %@", platform::resourceKeyName(key));
    }
    if (!regular || link) continue;
    // Only the size of the attributes is needed, and reading it alone keeps
    // this pass cheap next to the walk.
    auto size = fs.sizeOfItem(*path);
    if (!size) {
      QLXHLog("Cound not get attribute for item %@", *path);
      continue;
    }
    total = static_cast<std::int64_t>(static_cast<std::uint64_t>(total) + *size);
  }
  return total;
}

std::uint64_t QLXManifest::fileSizeToAdjustPercentage(const std::string& path) {
  auto size = platform_.fileSystem->sizeOfItem(path);
  return size ? *size : 0;
}

std::vector<std::string> QLXManifest::immediateHiddenFilesUnderPath(const std::string& folder) {
  std::vector<std::string> hidden;
  auto names = platform_.fileSystem->contentsOfDirectory(folder);
  if (!names) return hidden;
  for (const std::string& name : *names) {
    // Formed as the walk forms its entries' paths, so they match as skips
    // whatever slashes the folder's text holds.
    if (name.find('.') == 0) hidden.push_back(platform::entryPath(folder, name));
  }
  return hidden;
}
