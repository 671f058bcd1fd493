// The command line of vexdctl.
#pragma once

#include <string>
#include <vector>

#include "ovix/Object.h"

namespace vexdctl {

inline constexpr const char* kDefaultService = "com.velmor.quillexdhelper";
inline constexpr double kDefaultTimeoutSeconds = 30;

struct CtlOptions {
  std::string service = kDefaultService;
  double timeoutSeconds = kDefaultTimeoutSeconds;
  bool json = false;
  bool help = false;
  bool version = false;
  ovix::Object request = ovix::Object::makeDictionary();
};

// Reads the arguments after the program name. False with a one-line reason
// for anything a user must correct.
bool parseCtlArguments(const std::vector<std::string>& args, CtlOptions& options,
                       std::string& error);

const char* ctlUsage();

}  // namespace vexdctl
