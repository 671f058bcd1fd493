// Writes the records of a walk into a manifest file as the walk collects
// them, so memory does not grow with the tree. The file replaces the one at
// its path only when committed; dropped before that, it leaves nothing.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "manifest/QLXFileMetadata.h"
#include "platform/BinaryPropertyListStream.h"
#include "platform/FileSystem.h"

class QLXManifestWriter {
 public:
  QLXManifestWriter(platform::FileSystem& fileSystem, const std::string& path);

  // Adds the record under its relative path; a path met again gets the new
  // record in the old one's place, as a manifest's dictionary does.
  void add(QLXFileMetadata&& record, const std::string& relativePath);
  // Ends the property list and puts the file in place. Fails when anything
  // on the way could not be written.
  platform::Status commit();

 private:
  std::unique_ptr<platform::ReplacementFile> file_;
  std::optional<platform::BinaryPropertyListStream> stream_;
  platform::Status status_;
};
