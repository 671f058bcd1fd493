#include "ovix/ClientQuota.h"

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>

namespace ovix {

std::shared_ptr<ClientQuota> ClientQuota::shared() {
  static const std::shared_ptr<ClientQuota> quota = [] {
    // A fixed threshold keeps glibc from raising it after the first large
    // free, so every frame-sized buffer is mapped on its own and returned
    // to the system when freed rather than kept in the heap.
    ::mallopt(M_MMAP_THRESHOLD, 256 * 1024);
    const Limits limits;
    // Each connection holds its socket, a wake-up descriptor and pidfds;
    // the usual soft limit of 1024 would run out long before the cap.
    rlimit files{};
    const rlim_t wanted = static_cast<rlim_t>(limits.connections) * 4 + 256;
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < wanted) {
      files.rlim_cur = std::min(wanted, files.rlim_max);
      ::setrlimit(RLIMIT_NOFILE, &files);
    }
    return std::make_shared<ClientQuota>(limits);
  }();
  return quota;
}

ClientQuota::ClientQuota(Limits limits) : limits_(limits) {}

void ClientQuota::setReporter(Reporter reporter) {
  std::lock_guard lock(mutex_);
  reporter_ = std::move(reporter);
}

void ClientQuota::report(const std::string& message) {
  if (reporter_) reporter_(message);
}

std::unique_ptr<ClientQuota::Ticket> ClientQuota::admit(std::uint32_t uid) {
  std::lock_guard lock(mutex_);
  if (uid != 0) {
    Account& account = accounts_[uid];
    if (account.connections >= limits_.connectionsPerUid) {
      if (!account.refusedConnection) {
        account.refusedConnection = true;
        report("Refusing connections from uid " + std::to_string(uid) + ": it has " +
               std::to_string(account.connections) + " open");
      }
      return nullptr;
    }
    if (connections_ >= limits_.connections) {
      if (!refusedTotalConnections_) {
        refusedTotalConnections_ = true;
        report("Refusing connections: " + std::to_string(connections_) + " are open");
      }
      if (account.connections == 0) accounts_.erase(uid);
      return nullptr;
    }
    ++account.connections;
    ++connections_;
  }
  return std::make_unique<Ticket>(shared_from_this(), uid);
}

ClientQuota::Ticket::Ticket(std::shared_ptr<ClientQuota> quota, std::uint32_t uid)
    : quota_(std::move(quota)), uid_(uid) {}

ClientQuota::Ticket::~Ticket() {
  give(held_);
  closeSlot();
}

std::size_t ClientQuota::Ticket::take(std::size_t wanted) {
  if (uid_ == 0) return wanted;
  ClientQuota& q = *quota_;
  std::lock_guard lock(q.mutex_);
  Account& account = q.accounts_[uid_];
  const std::size_t forUid =
      account.bytes < q.limits_.bytesPerUid ? q.limits_.bytesPerUid - account.bytes : 0;
  const std::size_t forAll = q.bytes_ < q.limits_.bytes ? q.limits_.bytes - q.bytes_ : 0;
  const std::size_t granted = std::min({wanted, forUid, forAll});
  if (granted == 0 && wanted > 0) {
    if (forUid == 0 && !account.refusedBytes) {
      account.refusedBytes = true;
      q.report("Pausing reads from uid " + std::to_string(uid_) + ": it has " +
               std::to_string(account.bytes) + " bytes waiting");
    } else if (forUid > 0 && !q.refusedTotalBytes_) {
      q.refusedTotalBytes_ = true;
      q.report("Pausing reads: " + std::to_string(q.bytes_) + " bytes are waiting");
    }
  }
  account.bytes += granted;
  q.bytes_ += granted;
  held_ += granted;
  return granted;
}

void ClientQuota::Ticket::give(std::size_t bytes) {
  if (uid_ == 0 || bytes == 0) return;
  ClientQuota& q = *quota_;
  std::lock_guard lock(q.mutex_);
  bytes = std::min(bytes, held_);
  held_ -= bytes;
  Account& account = q.accounts_[uid_];
  account.bytes -= bytes;
  q.bytes_ -= bytes;
  // Below half the cap again: a later flood is worth one more line.
  if (account.bytes < q.limits_.bytesPerUid / 2) account.refusedBytes = false;
  if (q.bytes_ < q.limits_.bytes / 2) q.refusedTotalBytes_ = false;
  if (account.connections == 0 && account.bytes == 0) q.accounts_.erase(uid_);
}

void ClientQuota::Ticket::closeSlot() {
  if (uid_ == 0 || !slotHeld_) return;
  ClientQuota& q = *quota_;
  std::lock_guard lock(q.mutex_);
  slotHeld_ = false;
  Account& account = q.accounts_[uid_];
  --account.connections;
  --q.connections_;
  // Only well below the cap again is a later refusal worth another line, so
  // an account cycling one connection at the cap cannot flood the log.
  if (account.connections < q.limits_.connectionsPerUid / 2) account.refusedConnection = false;
  if (q.connections_ < q.limits_.connections / 2) q.refusedTotalConnections_ = false;
  if (account.connections == 0 && account.bytes == 0) q.accounts_.erase(uid_);
}

void ClientQuota::returnMemoryAfter(std::size_t frameBytes) {
  // Decoding a large frame leaves many small blocks in the heap of the
  // thread that read it; hand the freed pages back rather than keep them.
  if (frameBytes >= (1u << 20)) ::malloc_trim(0);
}

}  // namespace ovix
