#include "platform/PathItem.h"

namespace platform {

Status PathItem::setAttributes(const Dictionary& attributes) {
  return fileSystem_.setAttributes(attributes, path_);
}

Status PathItem::setExtendedAttribute(const std::string& name,
                                      std::span<const std::uint8_t> value) {
  return fileSystem_.setExtendedAttribute(path_, name, value);
}

Status PathItem::lchown(std::uint32_t owner, std::uint32_t group) {
  return fileSystem_.lchown(path_, owner, group);
}

Status PathItem::lchmod(std::uint16_t mode) { return fileSystem_.lchmod(path_, mode); }

}  // namespace platform
