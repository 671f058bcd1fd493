// vexdctl: sends one request dictionary to the helper service and shows its
// replies. See docs/vexdctl.md.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "tools/ctl/CtlOptions.h"
#include "tools/ctl/CtlSession.h"
#include "tools/ctl/ReplyPrinter.h"
#include "vexd_version.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  vexdctl::CtlOptions options;
  std::string error;
  if (!vexdctl::parseCtlArguments(args, options, error)) {
    std::fprintf(stderr, "vexdctl: %s\n", error.c_str());
    return vexdctl::kBadUsage;
  }
  if (options.help) {
    std::fputs(vexdctl::ctlUsage(), stdout);
    return 0;
  }
  if (options.version) {
    std::printf("vexdctl %s\n", VEXD_VERSION);
    return 0;
  }
  vexdctl::ReplyPrinter printer(stdout, options.json, ::isatty(STDOUT_FILENO) == 1);
  return vexdctl::runSession(options, printer, stderr);
}
