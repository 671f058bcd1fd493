// The mount table as /proc/self/mountinfo lists it.
#pragma once

#include <string>
#include <vector>

namespace platform {

struct MountInfoLine {
  std::string mountPoint;
  std::string fileSystemType;
  std::string source;
};

// Parses mountinfo text (octal escapes such as \040 decoded), in order;
// malformed lines are skipped.
std::vector<MountInfoLine> parseMountInfo(const std::string& text);

}  // namespace platform
