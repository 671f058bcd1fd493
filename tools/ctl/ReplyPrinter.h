// How vexdctl shows each message it receives: one line per key ("Progress
// 42", "Response pass", "Data 00ff"), one JSON object per message with
// --json, and progress as a bar redrawn in place on a terminal.
#pragma once

#include <cstdint>
#include <cstdio>

#include "ovix/Object.h"

namespace vexdctl {

class ReplyPrinter {
 public:
  ReplyPrinter(std::FILE* out, bool json, bool progressBar)
      : out_(out), json_(json), progressBar_(progressBar && !json) {}

  void print(const ovix::Object& message);
  // Ends a progress bar still on its line.
  void finish();

 private:
  void drawBar(std::int64_t percent);

  std::FILE* out_;
  bool json_;
  bool progressBar_;
  bool barShown_ = false;
};

}  // namespace vexdctl
