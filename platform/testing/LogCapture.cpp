#include "platform/testing/LogCapture.h"

#include <cstdlib>

#include "logging/QLXLogModel.h"

namespace platform::testing {

namespace {

// "YYYY-MM-DD HH:MM:SS +0000 " before every line of a log file.
constexpr std::size_t kStampLength = 26;

// Whether a line of the log file begins a message (with its time stamp);
// a message that holds line breaks continues on lines without one.
bool startsMessage(const std::string& line) {
  static const char kShape[] = "dddd-dd-dd dd:dd:dd +dddd ";
  if (line.size() < kStampLength) return false;
  for (std::size_t i = 0; i < kStampLength; ++i) {
    bool digit = line[i] >= '0' && line[i] <= '9';
    if (kShape[i] == 'd' ? !digit : line[i] != kShape[i]) return false;
  }
  return true;
}

}  // namespace

LogCapture::LogCapture() {
  stream_ = ::open_memstream(&buffer_, &size_);
  previous_ = QLXLogModel::sharedInstance().logFP();
  QLXLogModel::sharedInstance().setLogFP(stream_);
}

LogCapture::~LogCapture() {
  QLXLogModel::sharedInstance().setLogFP(previous_);
  if (stream_) std::fclose(stream_);
  std::free(buffer_);
}

std::vector<std::string> LogCapture::messages() const {
  std::fflush(stream_);
  std::vector<std::string> out;
  std::string all(buffer_ ? buffer_ : "", size_);
  std::size_t at = 0;
  while (at < all.size()) {
    std::size_t end = all.find('\n', at);
    if (end == std::string::npos) end = all.size();
    std::string line = all.substr(at, end - at);
    if (startsMessage(line) || out.empty())
      out.push_back(startsMessage(line) ? line.substr(kStampLength) : line);
    else
      out.back() += "\n" + line;
    at = end + 1;
  }
  return out;
}

std::size_t LogCapture::count(const std::string& message) const {
  std::size_t n = 0;
  for (const auto& m : messages()) n += m == message;
  return n;
}

std::vector<std::string> LogCapture::matching(const std::string& text) const {
  std::vector<std::string> out;
  for (const auto& m : messages())
    if (m.find(text) != std::string::npos) out.push_back(m);
  return out;
}

}  // namespace platform::testing
