#include "platform/linux/MountTable.h"

#include <sstream>

namespace platform {
namespace {

std::string unescape(const std::string& field) {
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' && field[i + 1] <= '3' &&
        field[i + 2] >= '0' && field[i + 2] <= '7' && field[i + 3] >= '0' && field[i + 3] <= '7') {
      out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                               (field[i + 3] - '0'));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

}  // namespace

std::vector<MountInfoLine> parseMountInfo(const std::string& text) {
  std::vector<MountInfoLine> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::vector<std::string> f;
    for (std::string word; fields >> word;) f.push_back(word);
    // id parent major:minor root mount-point options [optional...] - type source super-options
    std::size_t dash = 6;
    while (dash < f.size() && f[dash] != "-") ++dash;
    if (f.size() < 6 || dash + 2 >= f.size()) continue;
    lines.push_back({unescape(f[4]), unescape(f[dash + 1]), unescape(f[dash + 2])});
  }
  return lines;
}

}  // namespace platform
