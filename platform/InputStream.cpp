#include "platform/InputStream.h"

#include <cerrno>

namespace platform {

Result<Data> DataInputStream::readAll(std::size_t maxBytes) {
  if (bytes_.size() > maxBytes) return Error::posix(EFBIG, "File too large (in-memory stream)");
  return bytes_;
}

}  // namespace platform
