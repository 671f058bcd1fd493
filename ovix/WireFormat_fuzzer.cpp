// libFuzzer target for the frame decoder: any bytes must decode or be
// refused without a crash, and whatever decodes must survive re-encoding.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "ovix/FrameReader.h"
#include "ovix/WireFormat.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::span<const std::uint8_t> input(data, size);
  ovix::wire::DecodeResult decoded = ovix::wire::decodeFrame(input);
  if (decoded.message) {
    ovix::Bytes again;
    if (!ovix::wire::encodeFrame(*decoded.message, again)) std::abort();
    ovix::wire::DecodeResult twice = ovix::wire::decodeFrame(again);
    if (!twice.message || !(*twice.message == *decoded.message)) std::abort();
  }

  // The same bytes as a stream arriving in uneven pieces.
  ovix::FrameReader reader;
  std::size_t offset = 0;
  std::size_t piece = 1;
  while (offset < size) {
    const std::size_t n = std::min(piece, size - offset);
    reader.append(data + offset, n);
    offset += n;
    piece = piece * 3 + 1;
    ovix::Object message;
    std::string error;
    ovix::FrameReader::Status status;
    while ((status = reader.next(message, error)) == ovix::FrameReader::Status::Frame) {
    }
    if (status == ovix::FrameReader::Status::Error) break;
  }
  return 0;
}
