#include "ovix/FrameReader.h"

#include <span>

#include "ovix/WireFormat.h"

namespace ovix {

void FrameReader::append(const std::uint8_t* bytes, std::size_t length) {
  // Drop consumed bytes before growing, so the buffer stays near one frame.
  if (start_ > 0 && (start_ == buffer_.size() || start_ >= buffer_.size() / 2)) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
    start_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes, bytes + length);
}

FrameReader::Status FrameReader::next(Object& message, std::string& error) {
  const std::size_t available = buffer_.size() - start_;
  if (available < wire::kHeaderSize) return Status::NeedMore;
  std::span<const std::uint8_t> rest(buffer_.data() + start_, available);
  wire::HeaderResult header = wire::decodeHeader(rest.first<wire::kHeaderSize>());
  if (!header.ok) {
    error = header.error;
    return Status::Error;
  }
  if (available - wire::kHeaderSize < header.payloadLength) return Status::NeedMore;
  wire::DecodeResult decoded =
      wire::decodePayload(rest.subspan(wire::kHeaderSize, header.payloadLength));
  if (!decoded.message) {
    error = decoded.error;
    return Status::Error;
  }
  lastFrameSize_ = wire::kHeaderSize + header.payloadLength;
  start_ += lastFrameSize_;
  message = std::move(*decoded.message);
  // The buffer grew with a large frame; an idle connection keeps none of it.
  if (start_ == buffer_.size() && buffer_.capacity() > kKeptCapacity) clear();
  return Status::Frame;
}

void FrameReader::clear() {
  Bytes().swap(buffer_);
  start_ = 0;
}

}  // namespace ovix
