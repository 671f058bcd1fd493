#include "tools/ctl/CtlOptions.h"

#include <cmath>
#include <cstdlib>

#include "tools/ctl/Json.h"

namespace vexdctl {

const char* ctlUsage() {
  return "usage: vexdctl [--service NAME] [--timeout SECONDS] [--json] REQUEST [PARAMETER]\n"
         "       vexdctl [--service NAME] [--timeout SECONDS] [--json] --message JSON\n"
         "       vexdctl --help | --version\n"
         "\n"
         "Sends {REQUEST: PARAMETER} (PARAMETER is JSON, true when absent) or the whole\n"
         "request dictionary given with --message, and prints every reply until each key\n"
         "has its Response or nothing arrives for SECONDS (default 30).\n"
         "Exit status: 0 every key passed, 1 some key failed, 2 the service fell silent\n"
         "before every key was answered, 3 cannot connect, 64 bad usage.\n";
}

bool parseCtlArguments(const std::vector<std::string>& args, CtlOptions& options,
                       std::string& error) {
  std::vector<std::string> positional;
  const std::string* message = nullptr;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--help" || a == "-h") {
      options.help = true;
      return true;
    } else if (a == "--version") {
      options.version = true;
      return true;
    } else if (a == "--json") {
      options.json = true;
    } else if (a == "--service") {
      if (!hasValue) return error = "--service needs a service name", false;
      options.service = args[++i];
    } else if (a == "--timeout") {
      if (!hasValue) return error = "--timeout needs a number of seconds", false;
      const std::string& t = args[++i];
      char* end = nullptr;
      const double seconds = std::strtod(t.c_str(), &end);
      if (t.empty() || *end != '\0' || !std::isfinite(seconds) || seconds <= 0) {
        return error = "--timeout needs a positive number of seconds, not \"" + t + "\"", false;
      }
      options.timeoutSeconds = seconds;
    } else if (a == "--message") {
      if (!hasValue) return error = "--message needs a JSON object", false;
      message = &args[++i];
    } else if (a == "--") {
      positional.insert(positional.end(), args.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                        args.end());
      break;
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      return error = "unknown option " + a, false;
    } else {
      positional.push_back(a);
    }
  }

  if (message) {
    if (!positional.empty()) return error = "--message takes no REQUEST besides it", false;
    std::string why;
    if (!parseJson(*message, options.request, why)) {
      return error = "--message is not valid JSON: " + why, false;
    }
    if (!options.request.isDictionary()) return error = "--message must be a JSON object", false;
    if (options.request.count() == 0) return error = "--message holds no request", false;
    return true;
  }
  if (positional.empty()) return error = "no REQUEST given (see --help)", false;
  if (positional.size() > 2) return error = "too many arguments after " + positional[1], false;
  ovix::Object parameter = ovix::Object::makeBool(true);
  if (positional.size() == 2) {
    std::string why;
    if (!parseJson(positional[1], parameter, why)) {
      return error = "PARAMETER is not valid JSON (strings need quotes): " + why, false;
    }
  }
  options.request = ovix::Object::makeDictionary();
  options.request.set(positional[0], std::move(parameter));
  return true;
}

}  // namespace vexdctl
