// A directory tree as file metadata records keyed by their path relative to
// a root ("/" for the root itself). Its dictionary is the whole persistent
// form: written out, it is the device manifest.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "manifest/QLXFileMetadata.h"
#include "platform/Platform.h"
#include "platform/Value.h"

class QLXProgressUpdater;

class QLXManifest {
 public:
  // Told about each collected record and its relative path; answering NO
  // fails the walk.
  using Handler = std::function<bool(QLXFileMetadata& record, const std::string& relativePath)>;

  // init: empty, no root path, no progress updater.
  explicit QLXManifest(platform::Platform& platform);
  // initWithDictionary: a copy of an earlier manifest's dictionary.
  QLXManifest(platform::Platform& platform, platform::Dictionary dict);

  std::optional<QLXFileMetadata> metadataForFile(const std::string& relativePath) const;
  void setMetadata(const QLXFileMetadata& record, const std::string& relativePath);
  void setMetadata(QLXFileMetadata&& record, const std::string& relativePath);

  // Whether the path is one of the folders or lies below one of them: /a/b
  // is under /a and /a/, /a/bc is not under /a/b.
  static bool folderContains(const std::vector<std::string>& folders, const std::string& path);

  // Walks start and stores every record under its path relative to
  // relativeTo. A manifest takes one walk only.
  bool addFilesFromPath(const std::string& start, const std::string& relativeTo,
                        const std::vector<std::string>& skip, bool inclusive);
  bool enumerateAndCollectMetaData(const std::string& start, const std::string& relativeTo,
                                   const std::vector<std::string>& skip, bool inclusive,
                                   const Handler& handler);

  // Full paths of the entries directly in the folder whose names begin
  // with a dot.
  std::vector<std::string> immediateHiddenFilesUnderPath(const std::string& folder);
  // Total size of the regular files below start, for progress.
  std::int64_t calculateTotalFileSize(const std::string& start,
                                      const std::vector<std::string>& skipPaths);
  // The object's own size, the progress step for one entry.
  std::uint64_t fileSizeToAdjustPercentage(const std::string& path);

  std::set<std::string> pathSet() const;
  const std::optional<std::string>& rootPath() const { return rootPath_; }
  void setRootPath(std::optional<std::string> rootPath) { rootPath_ = std::move(rootPath); }
  const platform::Dictionary& dict() const { return dict_; }
  platform::Dictionary& dict() { return dict_; }
  void setDict(platform::Dictionary dict) { dict_ = std::move(dict); }
  // Not owned: the shared updater lives for the whole process.
  QLXProgressUpdater* progressUpdater() const { return progressUpdater_; }
  void setProgressUpdater(QLXProgressUpdater* updater) { progressUpdater_ = updater; }

  // Threads that read and hash files ahead of the walk; 0 hashes on the
  // walking thread alone. The result is the same either way.
  void setHashThreads(unsigned threads) { hashThreads_ = threads; }

 private:
  platform::Platform& platform_;
  platform::Dictionary dict_;
  std::optional<std::string> rootPath_;
  QLXProgressUpdater* progressUpdater_ = nullptr;
  unsigned hashThreads_;
};
