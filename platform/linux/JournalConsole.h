// Console messages sent to the journal as structured entries, so that
// `journalctl -u vexd_helper VEXD_CLIENT_EXE=...` answers who asked for what.
// Used only when standard error is the journal's stream; the message text
// is exactly what standard error would have carried.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/AuditToken.h"

namespace platform {

// Whose message the process is serving when a line is logged.
struct JournalContext {
  std::string request;               // the request key; empty outside one
  std::optional<AuditToken> client;  // the sender of the message in service
};

class JournalConsole {
 public:
  using ContextSource = std::function<JournalContext()>;

  // True when JOURNAL_STREAM names the device and inode of standard error.
  static bool standardErrorIsJournal();

  explicit JournalConsole(ContextSource source);

  // One journal entry; standard error gets the line if the journal refuses it.
  void send(const std::string& message) const;

  // The VEXD_* fields for a context, "NAME=value" each.
  static std::vector<std::string> fieldsFor(const JournalContext& context);

 private:
  ContextSource source_;
};

}  // namespace platform
