// The machinery behind one Connection: an I/O thread that owns the socket
// (reads and reassembles frames, writes what is queued), and a serial queue
// that delivers the events in order to the handler or the receive() inbox.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "ovix/ClientQuota.h"
#include "ovix/FrameReader.h"
#include "ovix/Object.h"
#include "ovix/SenderCredentials.h"
#include "ovix/SerialQueue.h"
#include "platform/AuditToken.h"
#include "platform/linux/UniqueFd.h"

namespace ovix {

class ConnectionCore : public std::enable_shared_from_this<ConnectionCore> {
 public:
  using EventHandler = std::function<void(const Object& event)>;

  // Frames a peer may have waiting for delivery before we stop reading, and
  // bytes we hold for a peer that does not read before we give up on it.
  static constexpr std::size_t kMaxPendingFrames = 256;
  static constexpr std::size_t kMaxPendingBytes = 32u << 20;
  static constexpr std::size_t kMaxOutgoingBytes = 64u << 20;
  // After cancel(), how long queued frames may wait for a peer that takes
  // none of them before they are dropped.
  static constexpr std::chrono::seconds kDrainStall{1};
  static constexpr int kQuotaRetryMs = 50;

  // Takes the connected socket, records the peer and starts the I/O thread.
  // A service's connection comes with its client's share of the quota.
  static std::shared_ptr<ConnectionCore> start(
      platform::UniqueFd socket, std::unique_ptr<ClientQuota::Ticket> ticket = nullptr);

  void setHandler(EventHandler handler);
  void resume();
  void cancel();
  // For the owner's last reference: cancels, and if the connection was
  // never resumed, drops its undelivered events.
  void release();
  bool send(const Object& message);
  std::optional<Object> receive(std::chrono::milliseconds timeout);
  // False once the connection has delivered its last event.
  bool postTerminationImminent();
  // The sender of the message being served (from its queue: the handler or
  // receive()); before the first one, the peer as it connected.
  const platform::AuditToken& token() const { return token_; }

  explicit ConnectionCore(platform::UniqueFd socket);

 private:
  struct Pending {
    Object event;
    std::size_t bytes;
    std::optional<Sender> sender;
  };

  static void ioLoop(std::shared_ptr<ConnectionCore> self);
  bool readAvailable(bool hungUp);
  void postMessage(Object message, std::size_t bytes, std::optional<Sender> sender);
  void serve(const std::optional<Sender>& sender);
  void flushLocked();
  void finish();
  void deliver(const Object& event, std::size_t bytes, bool last,
               const std::optional<Sender>& sender = std::nullopt);
  void releasePendingLocked(std::size_t bytes);
  bool readPausedLocked() const;

  platform::UniqueFd socket_;
  platform::UniqueFd pidfd_;
  platform::UniqueFd wake_;
  platform::AuditToken token_;
  std::shared_ptr<platform::UniqueFd> servedPidfd_;  // keeps token_.pidfd open
  bool pidfdsPassed_ = false;
  std::shared_ptr<SerialQueue> queue_;
  FrameReader reader_;  // I/O thread only
  // Who sent the first bytes of the frame being reassembled (I/O thread).
  std::optional<Sender> partialSender_;
  std::unique_ptr<ClientQuota::Ticket> ticket_;  // null: not bounded
  bool quotaPaused_ = false;                     // I/O thread only

  std::mutex mutex_;
  std::condition_variable inboxChanged_;
  EventHandler handler_;
  std::deque<Bytes> outgoing_;
  std::size_t outgoingOffset_ = 0;
  std::size_t outgoingBytes_ = 0;
  std::size_t pendingFrames_ = 0;
  std::size_t pendingBytes_ = 0;
  std::deque<Pending> inbox_;
  bool cancelled_ = false;
  bool closed_ = false;       // the I/O thread has ended; sends are refused
  bool writeBroken_ = false;  // the peer stopped reading for good
  bool lastDelivered_ = false;
};

}  // namespace ovix
