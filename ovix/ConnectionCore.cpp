#include "ovix/ConnectionCore.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <thread>

#include "ovix/Socket.h"
#include "ovix/WireFormat.h"

namespace ovix {

ConnectionCore::ConnectionCore(platform::UniqueFd socket)
    : socket_(std::move(socket)), wake_(socket::makeWakeFd()), queue_(SerialQueue::create()) {
  token_ = socket::peerToken(socket_.get(), pidfd_);
  pidfdsPassed_ = credentials::passesPidfds(socket_.get());
}

std::shared_ptr<ConnectionCore> ConnectionCore::start(platform::UniqueFd socket,
                                                      std::unique_ptr<ClientQuota::Ticket> ticket) {
  auto core = std::make_shared<ConnectionCore>(std::move(socket));
  core->ticket_ = std::move(ticket);
  // Without a wake-up descriptor cancel() could not reach the I/O thread:
  // such a connection ends at once rather than becoming unstoppable.
  if (!core->wake_.valid()) core->cancelled_ = true;
  try {
    std::thread(ioLoop, core).detach();
  } catch (const std::system_error&) {
    // No thread to be had: the connection ends as soon as it is resumed.
    core->finish();
  }
  return core;
}

void ConnectionCore::setHandler(EventHandler handler) {
  std::lock_guard lock(mutex_);
  // After the last event a stored handler would only keep what it captured.
  if (!lastDelivered_) handler_ = std::move(handler);
}

void ConnectionCore::resume() { queue_->resume(); }

void ConnectionCore::cancel() {
  std::lock_guard lock(mutex_);
  if (cancelled_) return;
  cancelled_ = true;
  socket::signalWake(wake_.get());
}

void ConnectionCore::release() {
  cancel();
  queue_->abandonIfSuspended();
}

bool ConnectionCore::send(const Object& message) {
  Bytes frame;
  if (!wire::encodeFrame(message, frame)) return false;
  std::lock_guard lock(mutex_);
  if (cancelled_ || closed_) return false;
  if (writeBroken_) return false;
  if (outgoingBytes_ + frame.size() > kMaxOutgoingBytes) {
    // The peer has stopped reading; holding more would only grow without end.
    cancelled_ = true;
    socket::signalWake(wake_.get());
    return false;
  }
  const bool wasIdle = outgoing_.empty();
  outgoingBytes_ += frame.size();
  outgoing_.push_back(std::move(frame));
  if (wasIdle) {
    // Most frames fit the socket buffer: writing here saves the I/O thread a
    // wake-up per message. It never blocks, and the rest goes out from there.
    flushLocked();
    if (!outgoing_.empty()) socket::signalWake(wake_.get());
  }
  return true;
}

std::optional<Object> ConnectionCore::receive(std::chrono::milliseconds timeout) {
  {
    std::lock_guard lock(mutex_);
    if (handler_) return std::nullopt;
  }
  resume();
  std::unique_lock lock(mutex_);
  inboxChanged_.wait_for(lock, timeout, [&] { return !inbox_.empty() || lastDelivered_; });
  if (!inbox_.empty()) {
    Pending p = std::move(inbox_.front());
    inbox_.pop_front();
    releasePendingLocked(p.bytes);
    serve(p.sender);
    return std::move(p.event);
  }
  if (lastDelivered_) return errorConnectionInvalid();
  return std::nullopt;
}

bool ConnectionCore::postTerminationImminent() {
  auto self = shared_from_this();
  return queue_->post([self] { self->deliver(errorTerminationImminent(), 0, false); });
}

void ConnectionCore::ioLoop(std::shared_ptr<ConnectionCore> self) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point drainDeadline{};
  for (;;) {
    pollfd fds[2] = {};
    int timeoutMs = -1;
    bool draining = false;
    {
      std::lock_guard lock(self->mutex_);
      if (self->cancelled_) {
        // What was sent before cancel() still leaves, as long as the peer
        // keeps taking it; a peer that stalls does not hold us open.
        const std::size_t before = self->outgoingBytes_;
        self->flushLocked();
        if (self->outgoing_.empty()) break;
        const auto now = Clock::now();
        if (drainDeadline == Clock::time_point{} || self->outgoingBytes_ < before) {
          drainDeadline = now + kDrainStall;
        }
        if (now >= drainDeadline) break;
        draining = true;
        timeoutMs = static_cast<int>(
            std::chrono::ceil<std::chrono::milliseconds>(drainDeadline - now).count());
      }
      short events = draining || self->readPausedLocked() || self->quotaPaused_ ? 0 : POLLIN;
      // Over its account's quota the client waits (the kernel holds what it
      // writes meanwhile); look again shortly, as others' bytes are handled.
      if (self->quotaPaused_ && !draining) timeoutMs = kQuotaRetryMs;
      self->quotaPaused_ = false;
      if (!self->outgoing_.empty()) events |= POLLOUT;
      // A socket polled for nothing still reports hang-ups; leave it out
      // entirely while reading is paused so a closed peer cannot spin us.
      fds[0].fd = events ? self->socket_.get() : -1;
      fds[0].events = events;
    }
    fds[1].fd = self->wake_.get();
    fds[1].events = POLLIN;
    if (::poll(fds, 2, timeoutMs) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[1].revents & POLLIN) socket::drainWake(self->wake_.get());
    if (fds[0].revents & POLLOUT) {
      std::lock_guard lock(self->mutex_);
      self->flushLocked();
    }
    if ((fds[0].events & POLLIN) && (fds[0].revents & (POLLIN | POLLHUP | POLLERR))) {
      if (!self->readAvailable((fds[0].revents & POLLHUP) != 0)) break;
    } else if (fds[0].revents & (POLLHUP | POLLERR)) {
      std::lock_guard lock(self->mutex_);
      self->flushLocked();
    }
  }
  self->finish();
}

bool ConnectionCore::readPausedLocked() const {
  return pendingFrames_ >= kMaxPendingFrames || pendingBytes_ >= kMaxPendingBytes;
}

// Reads what the socket has and posts every complete frame. False when the
// stream ended (orderly or not) or broke the protocol.
bool ConnectionCore::readAvailable(bool hungUp) {
  std::uint8_t buffer[64 * 1024];
  std::size_t room = sizeof buffer;
  if (ticket_) {
    room = ticket_->take(room);
    if (room == 0) {
      // A client that has gone cannot be waited for: its unfinished frame
      // may hold the very room it waits for.
      if (hungUp) return false;
      quotaPaused_ = true;
      return true;
    }
  }
  Received r = credentials::receive(socket_.get(), buffer, room, pidfdsPassed_);
  if (ticket_) ticket_->give(room - static_cast<std::size_t>(std::max<ssize_t>(r.bytes, 0)));
  if (r.bytes < 0) return r.error == EAGAIN || r.error == EWOULDBLOCK || r.error == EINTR;
  if (r.bytes == 0) return false;
  // One frame, one sender: bytes of another process finishing a frame that
  // this one began would borrow its credentials.
  if (reader_.holdsPartialFrame() && (partialSender_.has_value() != r.sender.has_value() ||
                                      (r.sender && !partialSender_->sameAs(*r.sender)))) {
    return false;
  }
  reader_.append(buffer, static_cast<std::size_t>(r.bytes));
  for (;;) {
    Object message;
    std::string error;
    switch (reader_.next(message, error)) {
      case FrameReader::Status::NeedMore:
        partialSender_ = reader_.holdsPartialFrame() ? r.sender : std::nullopt;
        return true;
      case FrameReader::Status::Error:
        return false;
      case FrameReader::Status::Frame:
        postMessage(std::move(message), reader_.lastFrameSize(), r.sender);
        break;
    }
  }
}

void ConnectionCore::postMessage(Object message, std::size_t bytes, std::optional<Sender> sender) {
  {
    std::lock_guard lock(mutex_);
    ++pendingFrames_;
    pendingBytes_ += bytes;
  }
  auto self = shared_from_this();
  queue_->post([self, message = std::move(message), bytes, sender = std::move(sender)]() mutable {
    {
      const Object served = std::move(message);
      self->deliver(served, bytes, false, sender);
    }
    ClientQuota::returnMemoryAfter(bytes);
  });
}

// The message about to be served names its own sender; frames read from a
// socket that passes no credentials (a client's) keep the peer's.
void ConnectionCore::serve(const std::optional<Sender>& sender) {
  if (!sender) return;
  token_ = sender->token();
  servedPidfd_ = sender->pidfd;
}

void ConnectionCore::flushLocked() {
  while (!outgoing_.empty() && !writeBroken_ && socket_.valid()) {
    const Bytes& front = outgoing_.front();
    const ssize_t n = ::send(socket_.get(), front.data() + outgoingOffset_,
                             front.size() - outgoingOffset_, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return;
      // The peer is gone; reading will find the end of the stream.
      writeBroken_ = true;
      break;
    }
    outgoingOffset_ += static_cast<std::size_t>(n);
    if (outgoingOffset_ == front.size()) {
      outgoingBytes_ -= front.size();
      outgoing_.pop_front();
      outgoingOffset_ = 0;
    }
  }
  if (writeBroken_) {
    outgoing_.clear();
    outgoingBytes_ = 0;
    outgoingOffset_ = 0;
  }
}

void ConnectionCore::finish() {
  if (ticket_) {
    // Frames already posted stay counted until handled; the rest is gone.
    ticket_->give(reader_.unframedBytes());
    ticket_->closeSlot();
  }
  reader_.clear();
  {
    std::lock_guard lock(mutex_);
    closed_ = true;
    outgoing_.clear();
    outgoingBytes_ = 0;
    ::shutdown(socket_.get(), SHUT_RDWR);
    socket_.reset();
  }
  auto self = shared_from_this();
  queue_->post([self] { self->deliver(errorConnectionInvalid(), 0, true); });
  queue_->close();
}

void ConnectionCore::deliver(const Object& event, std::size_t bytes, bool last,
                             const std::optional<Sender>& sender) {
  EventHandler handler;
  {
    std::lock_guard lock(mutex_);
    handler = handler_;
    if (!handler) {
      inbox_.push_back(Pending{event, bytes, sender});
      if (last) lastDelivered_ = true;
      inboxChanged_.notify_all();
      return;
    }
  }
  serve(sender);
  handler(event);
  EventHandler released;
  {
    std::lock_guard lock(mutex_);
    releasePendingLocked(bytes);
    if (last) {
      lastDelivered_ = true;
      // Breaks the cycle of a handler that captured its own connection.
      released = std::move(handler_);
      handler_ = nullptr;
      inboxChanged_.notify_all();
    }
  }
  // Both copies die here, outside the lock: that may end the Connection.
}

// Only frames count against the limits (every frame has at least a header);
// error events pass 0.
void ConnectionCore::releasePendingLocked(std::size_t bytes) {
  if (bytes == 0 || pendingFrames_ == 0) return;
  const bool wasPaused = readPausedLocked();
  --pendingFrames_;
  pendingBytes_ -= bytes;
  if (ticket_) ticket_->give(bytes);
  if (wasPaused && !readPausedLocked()) socket::signalWake(wake_.get());
}

}  // namespace ovix
