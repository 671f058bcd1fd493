// The platform's property-list object: what requests, manifests, attribute
// dictionaries and preferences are made of.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Date.h"

namespace platform {

using Data = std::vector<std::uint8_t>;

class Value;
class Dictionary;
using Array = std::vector<Value>;

// Deep-copying owner of a container, so Value keeps value semantics while
// holding types that contain Value themselves.
template <class T>
class Box {
 public:
  Box() : p_(std::make_unique<T>()) {}
  explicit Box(T v) : p_(std::make_unique<T>(std::move(v))) {}
  Box(const Box& o) : p_(std::make_unique<T>(*o.p_)) {}
  Box(Box&&) noexcept = default;
  Box& operator=(const Box& o) {
    if (this != &o) p_ = std::make_unique<T>(*o.p_);
    return *this;
  }
  Box& operator=(Box&&) noexcept = default;
  T& operator*() const { return *p_; }
  T* operator->() const { return p_.get(); }

 private:
  std::unique_ptr<T> p_;
};

class Value {
 public:
  enum class Type { Null, Boolean, Int64, UInt64, Double, String, Data, Date, Array, Dictionary };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(bool b) : v_(b) {}
  template <class I,
            std::enable_if_t<
                std::is_integral_v<I> && !std::is_same_v<I, bool> && std::is_signed_v<I>, int> = 0>
  Value(I i) : v_(static_cast<std::int64_t>(i)) {}
  template <class I, std::enable_if_t<std::is_integral_v<I> && !std::is_same_v<I, bool> &&
                                          std::is_unsigned_v<I>,
                                      int> = 0>
  Value(I u) : v_(static_cast<std::uint64_t>(u)) {}
  Value(double d) : v_(d) {}
  Value(const char* s) : v_(std::string(s)) {}
  Value(std::string s) : v_(std::move(s)) {}
  Value(std::string_view s) : v_(std::string(s)) {}
  Value(platform::Data d) : v_(std::move(d)) {}
  Value(platform::Date d) : v_(d) {}
  Value(platform::Array a);
  Value(platform::Dictionary d);

  Type type() const { return static_cast<Type>(v_.index()); }
  bool isNull() const { return type() == Type::Null; }
  bool isBoolean() const { return type() == Type::Boolean; }
  bool isString() const { return type() == Type::String; }
  bool isData() const { return type() == Type::Data; }
  bool isDate() const { return type() == Type::Date; }
  bool isArray() const { return type() == Type::Array; }
  bool isDictionary() const { return type() == Type::Dictionary; }
  // Booleans, integers and doubles are all numbers, as on the platform.
  bool isNumber() const;
  bool isInteger() const { return type() == Type::Int64 || type() == Type::UInt64; }

  // Number reads; a non-number reads as 0 / NO. true and 1 both read as YES,
  // and so does a string such as "YES", "true" or "1" (its boolValue).
  bool boolValue() const;
  std::int64_t int64Value() const;
  std::uint64_t uint64Value() const;
  double doubleValue() const;

  // Typed views: nullptr when the value holds another type.
  const std::string* string() const { return std::get_if<std::string>(&v_); }
  const platform::Data* data() const { return std::get_if<platform::Data>(&v_); }
  const platform::Date* date() const { return std::get_if<platform::Date>(&v_); }
  const platform::Array* array() const;
  platform::Array* array();
  const platform::Dictionary* dictionary() const;
  platform::Dictionary* dictionary();

  // Human-readable text for "%@": a string prints bare, containers print
  // in the platform's old-style property-list form.
  std::string description() const;

  // Value equality; numbers compare by value whatever their storage.
  friend bool operator==(const Value& a, const Value& b);

 private:
  void describe(std::string& out, int indent) const;
  friend class Dictionary;

  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string,
               platform::Data, platform::Date, Box<platform::Array>, Box<platform::Dictionary>>
      v_;
};

// A dictionary with string keys that enumerates in insertion order.
// Replacing a key keeps its place.
class Dictionary {
 public:
  using Entry = std::pair<std::string, Value>;
  using const_iterator = std::vector<Entry>::const_iterator;

  Dictionary() = default;
  Dictionary(std::initializer_list<Entry> entries);

  const Value* find(std::string_view key) const;
  Value* find(std::string_view key);
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  void set(std::string key, Value value);
  bool erase(std::string_view key);
  std::size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }
  std::vector<std::string> keys() const;

  friend bool operator==(const Dictionary& a, const Dictionary& b);

 private:
  // Most dictionaries are small (attribute dictionaries, records): they are
  // searched by scanning, and only a large one keeps an index by key.
  static constexpr std::size_t kIndexedFrom = 17;
  struct KeyHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  std::ptrdiff_t position(std::string_view key) const;

  std::vector<Entry> entries_;
  std::unordered_map<std::string, std::size_t, KeyHash, std::equal_to<>> index_;
};

}  // namespace platform
