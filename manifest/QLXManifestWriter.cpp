#include "manifest/QLXManifestWriter.h"

QLXManifestWriter::QLXManifestWriter(platform::FileSystem& fileSystem, const std::string& path) {
  auto file = fileSystem.createReplacementFile(path);
  if (!file) {
    status_ = file.error();
    return;
  }
  file_ = std::move(*file);
  platform::ReplacementFile* out = file_.get();
  stream_.emplace([out](std::span<const std::uint8_t> bytes) { return out->write(bytes); },
                  [out](std::uint64_t offset, std::span<std::uint8_t> buffer) {
                    return out->readAt(offset, buffer);
                  });
}

void QLXManifestWriter::add(QLXFileMetadata&& record, const std::string& relativePath) {
  if (!status_) return;
  status_ = stream_->add(relativePath, platform::Value(std::move(record).takeDict()));
}

platform::Status QLXManifestWriter::commit() {
  if (!status_) return status_;
  if (platform::Status st = stream_->finish(); !st) return status_ = st;
  return status_ = file_->commit();
}
