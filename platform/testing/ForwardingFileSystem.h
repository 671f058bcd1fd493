// Passes every call to another file system; a test derives from it and
// overrides the one call it wants to fail or to answer differently.
#pragma once

#include "platform/FileSystem.h"

namespace platform::testing {

class ForwardingFileSystem : public FileSystem {
 public:
  explicit ForwardingFileSystem(FileSystem& inner) : inner_(inner) {}

  bool exists(const std::string& path, bool* isDirectory = nullptr) override {
    return inner_.exists(path, isDirectory);
  }
  Status createDirectory(const std::string& path, bool withIntermediates) override {
    return inner_.createDirectory(path, withIntermediates);
  }
  Status createFile(const std::string& path, std::span<const std::uint8_t> contents) override {
    return inner_.createFile(path, contents);
  }
  Status removeItem(const std::string& path) override { return inner_.removeItem(path); }
  Result<std::vector<std::string>> contentsOfDirectory(const std::string& path) override {
    return inner_.contentsOfDirectory(path);
  }
  Result<Dictionary> attributesOfItem(const std::string& path) override {
    return inner_.attributesOfItem(path);
  }

 protected:
  FileSystem& inner_;
};

}  // namespace platform::testing
