// A source of bytes read whole: a file opened by path, or bytes in memory.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/Result.h"
#include "platform/Value.h"

namespace platform {

class InputStream {
 public:
  virtual ~InputStream() = default;
  // Everything the stream holds; EFBIG when that is more than maxBytes.
  virtual Result<Data> readAll(std::size_t maxBytes) = 0;
};

class DataInputStream : public InputStream {
 public:
  explicit DataInputStream(Data bytes) : bytes_(std::move(bytes)) {}
  Result<Data> readAll(std::size_t maxBytes) override;

 private:
  Data bytes_;
};

// Opens a regular file for reading; null when it cannot be opened or is not
// a regular file (a FIFO or a device would block or never end).
std::unique_ptr<InputStream> inputStreamWithFileAtPath(const std::string& path);

}  // namespace platform
