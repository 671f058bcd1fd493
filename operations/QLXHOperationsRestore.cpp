// Giving staged content the attributes a signed manifest records for it.
#include <memory>
#include <set>
#include <string>

#include "logging/QLXHLog.h"
#include "manifest/QLXFileMetadata.h"
#include "manifest/QLXManifest.h"
#include "manifest/QLXSignedManifest.h"
#include "operations/QLXHOperations.h"
#include "platform/FileSystem.h"
#include "platform/InputStream.h"
#include "platform/Path.h"
#include "platform/Platform.h"

using platform::Dictionary;
using platform::Value;

namespace {

// The file list a container type names. An app's entry is a container
// record with its list under "Manifest"; group and extension entries are
// the list itself.
const Dictionary* fileListFor(const QLXSignedManifest& manifest, const Value& type,
                              const Value& identifier, bool& containerMissing) {
  containerMissing = false;
  if (type.isNull() || identifier.isNull()) return manifest.getManifest();

  const std::string* typeName = type.string();
  const std::string* key = identifier.string();
  auto entryIn = [&](const Dictionary* list) -> const Value* {
    return list && key ? list->find(*key) : nullptr;
  };
  if (typeName && *typeName == "AppData") {
    const Value* container = entryIn(manifest.getAppDataList());
    if (container == nullptr) {
      containerMissing = true;
      return nullptr;
    }
    const Dictionary* record = container->dictionary();
    const Value* files = record ? record->find("Manifest") : nullptr;
    return files ? files->dictionary() : nullptr;
  }
  if (typeName && *typeName == "GroupData") {
    const Value* files = entryIn(manifest.getGroupDataList());
    return files ? files->dictionary() : nullptr;
  }
  if (typeName && *typeName == "ExtensionData") {
    const Value* files = entryIn(manifest.getPlugInDataList());
    return files ? files->dictionary() : nullptr;
  }
  return nullptr;
}

// The staged tree belongs to an unprivileged client, which could swap a
// folder for a link to somewhere else and have root re-own what lies there.
// The root and every folder between it and the file must therefore be real
// folders, and ".." may not climb out; a missing folder is left to the
// file's own restore to report. Folders found real are remembered. Answers
// why the path is refused, or nothing. This check names the culprit; the
// confined folder is what keeps a later swap from redirecting anything.
std::string whyRefused(platform::FileSystem& fileSystem, const std::string& root,
                       const std::string& relativePath, std::set<std::string>& realFolders) {
  auto isRealFolder = [&](const std::string& here, bool& exists) {
    platform::Result<Dictionary> attributes = fileSystem.attributesOfItem(here);
    exists = attributes.ok();
    const Value* type = exists ? attributes->find(platform::attr::kFileType) : nullptr;
    return type && type->string() && *type->string() == platform::attr::kTypeDirectory;
  };
  bool exists = false;
  if (realFolders.count("") == 0) {
    std::string here = platform::appendPathComponent(root, "");
    if (isRealFolder(here, exists))
      realFolders.insert("");
    else if (exists)
      return here + " is not a real folder";
  }
  std::string partial;
  std::size_t start = 0;
  while (start <= relativePath.size()) {
    std::size_t slash = relativePath.find('/', start);
    bool last = slash == std::string::npos;
    std::string component = relativePath.substr(start, last ? std::string::npos : slash - start);
    start = last ? relativePath.size() + 1 : slash + 1;
    if (component.empty() || component == ".") continue;
    partial = platform::appendPathComponent(partial, component);
    if (component == "..") return "\"..\" leaves the staging root";
    if (last || realFolders.count(partial) != 0) continue;
    std::string here = platform::appendPathComponent(root, partial);
    if (!isRealFolder(here, exists)) return exists ? here + " is not a real folder" : "";
    realFolders.insert(partial);
  }
  return {};
}

}  // namespace

bool QLXHOperations::restoreAttributesUnder(const Value& root, const Value& manifestPath,
                                            const Value& containerType, const Value& identifier) {
  QLXHLog("Loading signed manifest.");
  std::unique_ptr<platform::InputStream> stream;
  if (const std::string* path = manifestPath.string())
    stream = platform::inputStreamWithFileAtPath(*path);
  if (!stream) {
    QLXHLog("Cannot open manifest file.");
    return false;
  }
  std::unique_ptr<QLXSignedManifest> signedManifest =
      QLXSignedManifest::signedManifestWithNSStream(*stream, platform_);
  stream.reset();  // closed before any file is touched
  if (!signedManifest) return false;

  bool containerMissing = false;
  const Dictionary* files =
      fileListFor(*signedManifest, containerType, identifier, containerMissing);
  bool containerAsked = !containerType.isNull() && !identifier.isNull();
  if (containerMissing) {
    QLXHLog("Couldn't load container data for %@/%@", containerType, identifier);
    return false;
  }
  if (containerAsked && files == nullptr) {
    QLXHLog("Couldn't load manifest dict for %@/%@", containerType, identifier);
    return false;
  }
  if (files == nullptr) {
    QLXHLog("Couldn't get manifest.");
    return false;
  }
  QLXManifest manifest(platform_, *files);

  const std::string* rootPath = root.string();
  if (rootPath == nullptr) {
    QLXHLog("Staging root path is not a string: %@", root);
    return false;
  }
  std::set<std::string> realFolders;
  // Held open once: every file is reached from this very folder without
  // following links, whatever is renamed in the tree or at its path later.
  std::unique_ptr<platform::ConfinedFolder> staged =
      platform_.fileSystem->openConfinedFolder(*rootPath);
  // Relative paths are the manifest's keys and so always strings. Each pass
  // makes and drops its own record, so memory stays flat over long lists.
  for (const std::string& relativePath : manifest.pathSet()) {
    std::optional<QLXFileMetadata> record = manifest.metadataForFile(relativePath);
    if (!record) {
      QLXHLog("The manifest entry for %@ is not a file record", relativePath);
      return false;
    }
    std::string refusal = whyRefused(*platform_.fileSystem, *rootPath, relativePath, realFolders);
    if (!refusal.empty()) {
      QLXHLog("Refusing to restore %@: %@", relativePath, refusal);
      return false;
    }
    std::string target = platform::appendPathComponent(*rootPath, relativePath);
    std::unique_ptr<platform::FileItem> item = staged->openItem(relativePath);
    if (!record->restoreAttribuesToPath(target, *item)) return false;
  }
  return true;
}
