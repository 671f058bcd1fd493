// A value or the platform error that prevented it.
#pragma once

#include <cassert>
#include <optional>
#include <utility>
#include <variant>

#include "platform/Error.h"

namespace platform {

template <class T>
class Result {
 public:
  Result(T value) : v_(std::move(value)) {}
  Result(Error error) : v_(std::move(error)) {}

  bool ok() const { return v_.index() == 0; }
  explicit operator bool() const { return ok(); }
  T& value() { return std::get<0>(v_); }
  const T& value() const { return std::get<0>(v_); }
  T& operator*() { return value(); }
  const T& operator*() const { return value(); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }
  const Error& error() const { return std::get<1>(v_); }

 private:
  std::variant<T, Error> v_;
};

// Success or an error, for calls that produce nothing.
class Status {
 public:
  Status() = default;
  Status(Error error) : error_(std::move(error)) {}
  static Status success() { return Status(); }

  bool ok() const { return !error_.has_value(); }
  explicit operator bool() const { return ok(); }
  const Error& error() const { return *error_; }

 private:
  std::optional<Error> error_;
};

}  // namespace platform
