#include "tools/ctl/CtlSession.h"

#include <chrono>

#include "ovix/Connection.h"
#include "ovix/WireFormat.h"

namespace vexdctl {

int runSession(const CtlOptions& options, ReplyPrinter& printer, std::FILE* err) {
  ovix::Bytes frame;
  std::string why;
  if (!ovix::wire::encodeFrame(options.request, frame, &why)) {
    std::fprintf(err, "vexdctl: the request cannot be sent: %s\n", why.c_str());
    return kBadUsage;
  }
  auto connected = ovix::Connection::connect(options.service);
  if (!connected) {
    // The description names the socket path, and so the service.
    std::fprintf(err, "vexdctl: %s\n", connected.error().description.c_str());
    return kCannotConnect;
  }
  std::shared_ptr<ovix::Connection> connection = *connected;
  if (!connection->send(options.request)) {
    std::fprintf(err, "vexdctl: %s closed the connection before the request was sent\n",
                 options.service.c_str());
    return kServiceFellSilent;
  }

  // Each key is answered by one Response; the wait restarts with every message.
  const std::size_t expected = options.request.count();
  const auto quiet = std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(options.timeoutSeconds));
  std::size_t answered = 0;
  bool failed = false;
  bool closed = false;
  while (answered < expected) {
    std::optional<ovix::Object> event = connection->receive(quiet);
    if (!event) break;
    if (event->isError()) {
      closed = true;
      break;
    }
    printer.print(*event);
    if (const ovix::Object* response = event->get("Response")) {
      ++answered;
      if (!(response->type() == ovix::Type::Bool && response->boolValue())) failed = true;
    }
  }
  printer.finish();
  connection->cancel();

  if (answered < expected) {
    std::fprintf(err, "vexdctl: %s %s after %zu of %zu responses\n", options.service.c_str(),
                 closed ? "closed the connection" : "fell silent", answered, expected);
    return kServiceFellSilent;
  }
  return failed ? kSomeKeyFailed : kEveryKeyPassed;
}

}  // namespace vexdctl
