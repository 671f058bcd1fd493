// What clients that have not yet been served may make a service hold:
// connections, and bytes received but not yet handled (frames being
// reassembled or waiting for the handler), per uid and in total. Every
// local account may connect, so without a bound one account could make the
// root service hold memory and threads without end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace ovix {

class ClientQuota : public std::enable_shared_from_this<ClientQuota> {
 public:
  struct Limits {
    std::size_t connectionsPerUid = 64;
    std::size_t connections = 1024;
    // Room for one frame of the largest size (16 MiB) and more behind it.
    std::size_t bytesPerUid = 24u << 20;
    std::size_t bytes = 48u << 20;
  };
  using Reporter = std::function<void(const std::string& message)>;

  // One admitted connection's share; gives everything back when destroyed.
  class Ticket {
   public:
    Ticket(const Ticket&) = delete;
    Ticket& operator=(const Ticket&) = delete;
    ~Ticket();

    // Up to `wanted` bytes this connection may receive now (0: wait).
    std::size_t take(std::size_t wanted);
    // Received bytes that were handled (or dropped).
    void give(std::size_t bytes);
    // The connection is closed: its slot is free; bytes still waiting for
    // the handler stay counted until given back.
    void closeSlot();

    Ticket(std::shared_ptr<ClientQuota> quota, std::uint32_t uid);

   private:
    std::shared_ptr<ClientQuota> quota_;
    std::uint32_t uid_;
    std::size_t held_ = 0;  // under the quota's lock
    bool slotHeld_ = true;
  };

  static std::shared_ptr<ClientQuota> shared();
  explicit ClientQuota(Limits limits);

  // A ticket for a new connection from `uid`, or none when it is over a cap
  // (the caller closes the socket). Root is not bounded: it owns the service.
  std::unique_ptr<Ticket> admit(std::uint32_t uid);

  // Where refusals are reported; once per uid (and once for the total)
  // until the refused account is admitted again, never once per attempt.
  void setReporter(Reporter reporter);

  // Called once a frame of that size has been handled and freed.
  static void returnMemoryAfter(std::size_t frameBytes);

 private:
  struct Account {
    std::size_t connections = 0;
    std::size_t bytes = 0;
    bool refusedConnection = false;
    bool refusedBytes = false;
  };
  void report(const std::string& message);

  const Limits limits_;
  std::mutex mutex_;
  std::map<std::uint32_t, Account> accounts_;
  std::size_t connections_ = 0;
  std::size_t bytes_ = 0;
  bool refusedTotalConnections_ = false;
  bool refusedTotalBytes_ = false;
  Reporter reporter_;
};

}  // namespace ovix
