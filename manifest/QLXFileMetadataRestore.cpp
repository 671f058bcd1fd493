// Applying a record to an object on disk, and comparing two records.
#include <array>

#include "logging/QLXHLog.h"
#include "manifest/QLXFileMetadata.h"
#include "platform/FileSystem.h"
#include "platform/PathItem.h"

using platform::Data;
using platform::Dictionary;
using platform::Value;
namespace attr = platform::attr;

namespace {

bool isType(const std::string* type, const char* wanted) { return type && *type == wanted; }

// Equal when both are present strings with the same text; an absent value
// equals nothing, not even another absent one.
bool sameString(const std::string* a, const std::string* b) { return a && b && *a == *b; }

bool sameData(const Data* a, const Data* b) { return a && b && *a == *b; }

}  // namespace

Dictionary QLXFileMetadata::fileAttributesAllowSet(const Dictionary& attributes) const {
  static const std::array<const char*, 12> kSettable = {
      attr::kBusy,
      attr::kCreatorCode,
      attr::kTypeCode,
      attr::kImmutable,
      attr::kCreationDate,
      attr::kExtensionHidden,
      attr::kGroupOwnerAccountID,
      attr::kGroupOwnerAccountName,
      attr::kModificationDate,
      attr::kOwnerAccountID,
      attr::kOwnerAccountName,
      attr::kPosixPermissions,
  };
  Dictionary allowed;
  for (const auto& [key, value] : attributes) {
    for (const char* settable : kSettable) {
      if (key == settable) {
        allowed.set(key, value);
        break;
      }
    }
  }
  return allowed;
}

bool QLXFileMetadata::restoreAttribuesToPath(const std::string& path) const {
  platform::PathItem item(*platform_->fileSystem, path);
  return restoreAttribuesToPath(path, item);
}

bool QLXFileMetadata::restoreAttribuesToPath(const std::string& path,
                                             platform::FileItem& item) const {
  static const Dictionary kNone;
  const Dictionary* recorded = getFileAttributes();
  const Dictionary& attributes = recorded ? *recorded : kNone;
  auto number = [&](const char* key) -> const Value& {
    static const Value kAbsent;
    const Value* v = attributes.find(key);
    return v ? *v : kAbsent;
  };

  bool pending = false;
  if (isType(getFileType(), attr::kTypeSymbolicLink)) {
    // A link is owned and moded as itself; what the kernel refuses here
    // (Linux links have no mode) does not matter to the caller.
    // Values are taken as 32 and 16 bits, but one that does not fit is not
    // cut to fit: 4294967296 must not become 0, root.
    auto fits = [&](const char* key, std::uint64_t max) {
      const Value& v = number(key);
      std::int64_t n = v.int64Value();
      bool ok = v.type() == Value::Type::UInt64 ? v.uint64Value() <= max
                                                : n >= 0 && static_cast<std::uint64_t>(n) <= max;
      if (!ok) QLXHLog("Ignoring %@ %@ of link %@: out of range", key, v, path);
      return ok;
    };
    if (fits(attr::kOwnerAccountID, 0xffffffff) && fits(attr::kGroupOwnerAccountID, 0xffffffff))
      (void)item.lchown(
          static_cast<std::uint32_t>(number(attr::kOwnerAccountID).int64Value()),
          static_cast<std::uint32_t>(number(attr::kGroupOwnerAccountID).int64Value()));
    if (fits(attr::kPosixPermissions, 0xffff))
      (void)item.lchmod(static_cast<std::uint16_t>(number(attr::kPosixPermissions).int64Value()));
  } else {
    Dictionary settable = fileAttributesAllowSet(attributes);
    if (platform::Status s = item.setAttributes(settable); !s) {
      QLXHLog("Could not set file attributs at %@ with error - %@, attributes = %@", path,
              s.error(), settable);
      return false;
    }
    // The protection class goes in a call of its own.
    Dictionary protection;
    const Value* protectionClass = attributes.find(attr::kProtectionKey);
    if (protectionClass) protection.set(attr::kProtectionKey, *protectionClass);
    if (platform::Status s = item.setAttributes(protection); !s) {
      QLXHLog("Could not set file protection key at %@ with error - %@, attributes = %@", path,
              s.error(), protectionClass ? *protectionClass : Value());
      return false;
    }
    pending = true;
  }

  // Names already written stay written and nothing is removed, so
  // attributes the file has and the record lacks survive. A failure here
  // fails a link's restore only; for other objects it is logged and the
  // restore still counts as done.
  if (const Dictionary* extended = getExtendedAttributes()) {
    for (const auto& [name, value] : *extended) {
      // Dictionary keys are strings by construction, so no key needs the
      // non-string check.
      const Data* bytes = value.data();
      if (!bytes) {
        QLXHLog("Got non-data value");
        return pending;
      }
      if (!item.setExtendedAttribute(name, *bytes)) {
        QLXHLog("Could not set extended attributes on %@", path);
        return pending;
      }
    }
  }
  return true;
}

std::int32_t QLXFileMetadata::compareWith(const QLXFileMetadata* other) const {
  if (!other) return 0;
  if (!sameString(getFileType(), other->getFileType())) return 1;
  if (isType(getFileType(), attr::kTypeRegular) &&
      isType(other->getFileType(), attr::kTypeRegular) && !sameData(getHash(), other->getHash()))
    return 2;
  if (isType(getFileType(), attr::kTypeSymbolicLink) &&
      !sameString(getTargetFile(), other->getTargetFile()))
    return 3;

  if (const Dictionary* mine = getFileAttributes()) {
    const Dictionary* theirs = other->getFileAttributes();
    for (const auto& [key, value] : *mine) {
      const Value* their = theirs ? theirs->find(key) : nullptr;
      if (key == attr::kOwnerAccountID || key == attr::kGroupOwnerAccountID ||
          key == attr::kPosixPermissions) {
        if (!their || !(value == *their)) return 4;
      } else if (key == attr::kProtectionKey) {
        // Lenient on purpose: differing classes fail only when this record
        // has none and the other says "none", which cannot happen while the
        // walk is over this record's own keys.
        if (value.isString() && their && their->isString() && *value.string() == *their->string())
          continue;
        if (value.isNull() && their && their->isString() &&
            *their->string() == attr::kProtectionNone)
          return 4;
      }
    }
  }

  auto withoutIgnored = [](const Dictionary* d) -> std::optional<Dictionary> {
    if (!d) return std::nullopt;
    Dictionary copy = *d;
    copy.erase(kIgnoredExtendedAttribute);
    return copy;
  };
  std::optional<Dictionary> mine = withoutIgnored(getExtendedAttributes());
  std::optional<Dictionary> theirs = withoutIgnored(other->getExtendedAttributes());
  if (!mine) return theirs ? 5 : 6;
  if (mine->size() != (theirs ? theirs->size() : 0)) return 5;
  for (const auto& [name, value] : *mine) {
    const Value* their = theirs ? theirs->find(name) : nullptr;
    if (!their || !sameData(value.data(), their->data())) return 5;
  }
  return 6;
}
