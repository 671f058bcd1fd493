// A zeroed byte buffer aligned for direct I/O.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <utility>

namespace platform {

class AlignedBuffer {
 public:
  // A page: what direct I/O asks of memory on every Linux block device.
  static constexpr std::size_t kAlignment = 4096;

  explicit AlignedBuffer(std::size_t size)
      : data_(static_cast<std::uint8_t*>(
            ::operator new(size ? size : 1, std::align_val_t(kAlignment)))),
        size_(size) {
    std::memset(data_, 0, size_);
  }
  AlignedBuffer(AlignedBuffer&& o) noexcept
      : data_(std::exchange(o.data_, nullptr)), size_(std::exchange(o.size_, 0)) {}
  AlignedBuffer& operator=(AlignedBuffer&& o) noexcept {
    std::swap(data_, o.data_);
    std::swap(size_, o.size_);
    return *this;
  }
  AlignedBuffer(const AlignedBuffer&) = delete;
  AlignedBuffer& operator=(const AlignedBuffer&) = delete;
  ~AlignedBuffer() {
    if (data_) ::operator delete(data_, std::align_val_t(kAlignment));
  }

  std::uint8_t* data() { return data_; }
  std::size_t size() const { return size_; }
  std::span<std::uint8_t> span(std::size_t length) { return {data_, length}; }
  std::span<std::uint8_t> span() { return {data_, size_}; }

 private:
  std::uint8_t* data_;
  std::size_t size_;
};

}  // namespace platform
