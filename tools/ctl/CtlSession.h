// One run of vexdctl: connect, send the request, show the replies, and say
// with the exit status how the request went.
#pragma once

#include <cstdio>

#include "tools/ctl/CtlOptions.h"
#include "tools/ctl/ReplyPrinter.h"

namespace vexdctl {

enum ExitStatus : int {
  kEveryKeyPassed = 0,
  kSomeKeyFailed = 1,
  kServiceFellSilent = 2,
  kCannotConnect = 3,
  kBadUsage = 64,
};

// Errors go to `err` as one line each.
int runSession(const CtlOptions& options, ReplyPrinter& printer, std::FILE* err);

}  // namespace vexdctl
