#include "tools/ctl/ReplyPrinter.h"

#include <algorithm>
#include <string>

#include "tools/ctl/Json.h"

namespace vexdctl {

void ReplyPrinter::print(const ovix::Object& message) {
  if (json_) {
    std::fprintf(out_, "%s\n", toJson(message).c_str());
    std::fflush(out_);
    return;
  }
  message.apply([&](const std::string& key, const ovix::Object& value) {
    if (key == "Progress" && value.type() == ovix::Type::Int64 && progressBar_) {
      drawBar(value.int64Value());
      return true;
    }
    finish();
    std::string text;
    if (key == "Progress" && value.type() == ovix::Type::Int64) {
      text = std::to_string(value.int64Value());
    } else if (key == "Response" && value.type() == ovix::Type::Bool) {
      text = value.boolValue() ? "pass" : "fail";
    } else if (key == "Data" && value.type() == ovix::Type::Data) {
      text = hex(value.dataValue());
    } else {
      text = toJson(value);
    }
    std::fprintf(out_, "%s %s\n", key.c_str(), text.c_str());
    return true;
  });
  std::fflush(out_);
}

void ReplyPrinter::finish() {
  if (!barShown_) return;
  std::fputc('\n', out_);
  std::fflush(out_);
  barShown_ = false;
}

void ReplyPrinter::drawBar(std::int64_t percent) {
  constexpr int kWidth = 40;
  const std::int64_t p = std::clamp<std::int64_t>(percent, 0, 100);
  const int filled = static_cast<int>(p * kWidth / 100);
  std::string bar(static_cast<std::size_t>(filled), '#');
  bar.append(static_cast<std::size_t>(kWidth - filled), '-');
  std::fprintf(out_, "\rProgress [%s] %3lld%%", bar.c_str(), static_cast<long long>(p));
  barShown_ = true;
}

}  // namespace vexdctl
