// Reassembles frames from a byte stream that arrives in arbitrary pieces.
// A header is judged as soon as its 12 bytes are in, so an oversized or
// foreign frame is refused before its payload is waited for or stored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ovix/Object.h"

namespace ovix {

class FrameReader {
 public:
  enum class Status { NeedMore, Frame, Error };

  void append(const std::uint8_t* bytes, std::size_t length);

  // The next complete frame's dictionary into `message`, or the reason the
  // stream is broken into `error` (after which the stream is unusable).
  Status next(Object& message, std::string& error);

  // Bytes of an unfinished frame are held: the stream ended mid-frame.
  bool holdsPartialFrame() const { return buffer_.size() > start_; }
  std::size_t unframedBytes() const { return buffer_.size() - start_; }
  // Frees the buffer, whatever it holds.
  void clear();

  // Header and payload size of the frame next() last returned.
  std::size_t lastFrameSize() const { return lastFrameSize_; }

 private:
  static constexpr std::size_t kKeptCapacity = 256 * 1024;
  Bytes buffer_;
  std::size_t start_ = 0;
  std::size_t lastFrameSize_ = 0;
};

}  // namespace ovix
