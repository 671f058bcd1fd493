#include "platform/testing/Commands.h"

#include <cstdio>
#include <fstream>
#include <sstream>

namespace platform::testing {

std::string run(const std::string& command) {
  std::string out;
  if (std::FILE* p = ::popen(command.c_str(), "r")) {
    char buf[4096];
    while (std::size_t n = std::fread(buf, 1, sizeof buf, p)) out.append(buf, n);
    ::pclose(p);
  }
  return out;
}

std::string contentsOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string hex(const Data& bytes) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (std::uint8_t b : bytes) {
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
  return out;
}

}  // namespace platform::testing
