#include "platform/Path.h"

namespace platform {

std::string appendPathComponent(std::string_view base, std::string_view component) {
  while (base.size() > 1 && base.back() == '/') base.remove_suffix(1);
  while (!component.empty() && component.front() == '/') component.remove_prefix(1);
  if (base.empty()) return std::string(component);
  if (component.empty()) return std::string(base);
  std::string out(base);
  if (out.back() != '/') out += '/';
  out += component;
  return out;
}

std::string entryPath(std::string_view folder, std::string_view name) {
  std::string out(folder);
  if (!out.empty() && out.back() != '/') out += '/';
  out += name;
  return out;
}

std::string deletingLastPathComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  std::size_t slash = path.find_last_of('/');
  if (slash == std::string_view::npos) return "";
  if (slash == 0) return "/";
  return std::string(path.substr(0, slash));
}

}  // namespace platform
