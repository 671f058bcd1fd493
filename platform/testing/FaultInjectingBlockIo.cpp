#include "platform/testing/FaultInjectingBlockIo.h"

#include <algorithm>

namespace platform::testing {
namespace {

Error ioError(const char* what) { return Error::posix(5, what); }

}  // namespace

std::size_t FaultInjectingBlockIo::writes() const {
  return std::count_if(calls.begin(), calls.end(), [](const Call& c) { return c.kind == 'w'; });
}

Status FaultInjectingBlockIo::enter(Call call) {
  calls.push_back(call);
  if (beforeCall) beforeCall(call, calls.size());
  if (cut_) return ioError("the disk is gone");
  if (failCall && *failCall == calls.size()) return ioError("injected I/O error");
  if (call.kind == 'r' && failReads && calls.size() >= *failReads)
    return ioError("injected read error");
  return Status::success();
}

Status FaultInjectingBlockIo::read(std::span<std::uint8_t> buffer, std::uint64_t offset) {
  if (auto s = enter({'r', offset, buffer.size()}); !s) return s;
  return inner_.read(buffer, offset);
}

Status FaultInjectingBlockIo::write(std::span<const std::uint8_t> bytes, std::uint64_t offset) {
  const bool wasCut = cut_;
  if (auto s = enter({'w', offset, bytes.size()}); !s) return s;
  if (!wasCut && cutAtWrite && writes() >= *cutAtWrite) {
    cut_ = true;
    const std::size_t torn = std::min(tornBytes, bytes.size());
    if (torn) (void)inner_.write(bytes.first(torn), offset);
    return ioError("the disk is gone");
  }
  return inner_.write(bytes, offset);
}

Status FaultInjectingBlockIo::flush() {
  if (auto s = enter({'f', 0, 0}); !s) return s;
  return inner_.flush();
}

}  // namespace platform::testing
