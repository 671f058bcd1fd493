// One argument of a log message, captured by type so the formatter can
// render any conversion safely.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "platform/Error.h"
#include "platform/Value.h"

namespace logging {

class FormatArg {
 public:
  enum class Kind { Signed, Unsigned, Double, Text };

  template <class I, std::enable_if_t<std::is_integral_v<I> && std::is_signed_v<I>, int> = 0>
  FormatArg(I i) : kind_(Kind::Signed), i_(i) {}
  template <class I, std::enable_if_t<std::is_integral_v<I> && std::is_unsigned_v<I> &&
                                          !std::is_same_v<I, bool>, int> = 0>
  FormatArg(I u) : kind_(Kind::Unsigned), u_(u) {}
  // A BOOL is a small signed integer on the platform.
  FormatArg(bool b) : kind_(Kind::Signed), i_(b ? 1 : 0) {}
  FormatArg(double d) : kind_(Kind::Double), d_(d) {}
  FormatArg(const char* s) : kind_(Kind::Text), text_(s ? s : "(null)") {}
  FormatArg(const std::string& s) : kind_(Kind::Text), text_(s) {}
  FormatArg(std::string_view s) : kind_(Kind::Text), text_(s) {}
  FormatArg(const platform::Value& v);
  FormatArg(const platform::Dictionary& d) : FormatArg(platform::Value(d)) {}
  FormatArg(const platform::Array& a) : FormatArg(platform::Value(a)) {}
  FormatArg(const platform::Data& d) : FormatArg(platform::Value(d)) {}
  FormatArg(const platform::Date& d) : kind_(Kind::Text), text_(platform::formatDate(d)) {}
  FormatArg(const platform::Error& e) : kind_(Kind::Text), text_(e.description) {}

  Kind kind() const { return kind_; }
  std::int64_t asSigned() const;
  std::uint64_t asUnsigned() const;
  double asDouble() const;
  // The argument's description: text as it is, numbers in decimal.
  std::string asText() const;

 private:
  Kind kind_;
  std::int64_t i_ = 0;
  std::uint64_t u_ = 0;
  double d_ = 0;
  std::string text_;
};

}  // namespace logging
