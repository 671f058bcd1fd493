// Owners for libplist's node trees and the buffers its writers return, so
// no path out of the property-list adapter leaks or double-frees them.
#pragma once

#include <plist/plist.h>

#include <cstdlib>
#include <utility>

namespace platform {

class PlistNode {
 public:
  PlistNode() = default;
  explicit PlistNode(plist_t node) : node_(node) {}
  PlistNode(PlistNode&& o) noexcept : node_(std::exchange(o.node_, nullptr)) {}
  PlistNode& operator=(PlistNode&& o) noexcept {
    if (this != &o) reset(std::exchange(o.node_, nullptr));
    return *this;
  }
  PlistNode(const PlistNode&) = delete;
  PlistNode& operator=(const PlistNode&) = delete;
  ~PlistNode() { reset(); }

  plist_t get() const { return node_; }
  explicit operator bool() const { return node_ != nullptr; }
  // Hands the node to a parent container, which frees it from then on.
  plist_t release() { return std::exchange(node_, nullptr); }
  void reset(plist_t node = nullptr) {
    if (node_) plist_free(node_);
    node_ = node;
  }

 private:
  plist_t node_ = nullptr;
};

// A buffer libplist allocated with malloc (serialised output, dictionary
// keys, iterators).
template <class T>
class PlistMalloced {
 public:
  PlistMalloced() = default;
  PlistMalloced(const PlistMalloced&) = delete;
  PlistMalloced& operator=(const PlistMalloced&) = delete;
  ~PlistMalloced() { std::free(p_); }

  T* get() const { return p_; }
  // For libplist's out-parameters; frees what was held before.
  T** out() {
    std::free(p_);
    p_ = nullptr;
    return &p_;
  }

 private:
  T* p_ = nullptr;
};

}  // namespace platform
