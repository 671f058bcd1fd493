#include "platform/testing/ScratchDir.h"

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace platform::testing {

ScratchDir::ScratchDir(const std::string& parent) {
  std::string base = parent;
  if (base.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    base = tmp && *tmp ? tmp : "/tmp";
  }
  std::string pattern = base + "/vexd-test-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (!::mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed under " + base);
  path_ = buf.data();
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace platform::testing
