// Path text helpers that never touch the file system.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// Joins as a path component: exactly one "/" between the two parts.
std::string appendPathComponent(std::string_view base, std::string_view component);
// An entry's path as a folder listing forms it: the folder's text kept as
// given (doubled slashes and all) and one "/" added unless it ends in one.
// Whatever is compared with such paths must be formed the same way.
std::string entryPath(std::string_view folder, std::string_view name);
// The path without its last component ("/" for "/x", "" for "x").
std::string deletingLastPathComponent(std::string_view path);
// True when text starts with prefix (a plain text test, no normalising).
inline bool hasPrefix(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

}  // namespace platform
