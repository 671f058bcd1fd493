// A message object: what travels over a connection (dictionaries of scalars,
// data, arrays and nested dictionaries) and what an event handler receives
// (a dictionary, a new connection or an error).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace ovix {

class Connection;

using Uuid = std::array<std::uint8_t, 16>;
using Bytes = std::vector<std::uint8_t>;

enum class Type : std::uint8_t {
  Null,
  Bool,
  Int64,
  UInt64,
  Double,
  String,
  Data,
  Date,
  Uuid,
  Array,
  Dictionary,
  // Event-only types: never sent or received as message contents.
  Connection,
  Error,
};

// "dictionary", "int64", ...: for log lines and diagnostics.
const char* typeName(Type type);

class Object {
 public:
  using DictionaryVisitor = std::function<bool(const std::string& key, const Object& value)>;
  using ArrayVisitor = std::function<bool(std::size_t index, const Object& value)>;

  Object();  // null
  Object(const Object& other);
  Object(Object&& other) noexcept;
  Object& operator=(const Object& other);
  Object& operator=(Object&& other) noexcept;
  ~Object();

  static Object makeNull();
  static Object makeBool(bool value);
  static Object makeInt64(std::int64_t value);
  static Object makeUInt64(std::uint64_t value);
  static Object makeDouble(double value);
  static Object makeString(std::string_view value);
  static Object makeData(Bytes value);
  static Object makeData(const void* bytes, std::size_t length);
  static Object makeDate(std::int64_t nanosecondsSince1970);
  static Object makeUuid(const Uuid& value);
  static Object makeArray();
  static Object makeDictionary();
  static Object makeConnection(std::shared_ptr<Connection> connection);
  // An error event other than the two well-known ones below.
  static Object makeError(std::string description);

  Type type() const;
  bool isDictionary() const { return type() == Type::Dictionary; }
  bool isArray() const { return type() == Type::Array; }
  bool isError() const { return type() == Type::Error; }
  bool isConnection() const { return type() == Type::Connection; }

  // Scalar reads. A value of another type reads as false, 0 or empty, so a
  // handler never has to guard against a peer sending the wrong type.
  bool boolValue() const;
  std::int64_t int64Value() const;
  std::uint64_t uint64Value() const;
  double doubleValue() const;
  const std::string& stringValue() const;
  const Bytes& dataValue() const;
  std::int64_t dateValue() const;  // nanoseconds since 1970-01-01 UTC
  Uuid uuidValue() const;
  std::shared_ptr<Connection> connectionValue() const;
  const std::string& errorDescription() const;

  // Entries of a dictionary or elements of an array; 0 for anything else.
  std::size_t count() const;

  // Dictionary writes; ignored unless this is a dictionary. Replacing a key
  // keeps its place in the order.
  void set(std::string key, Object value);
  void setBool(std::string key, bool value) { set(std::move(key), makeBool(value)); }
  void setInt64(std::string key, std::int64_t value) { set(std::move(key), makeInt64(value)); }
  void setUInt64(std::string key, std::uint64_t value) { set(std::move(key), makeUInt64(value)); }
  void setDouble(std::string key, double value) { set(std::move(key), makeDouble(value)); }
  void setString(std::string key, std::string_view value) {
    set(std::move(key), makeString(value));
  }
  void setData(std::string key, const void* bytes, std::size_t length) {
    set(std::move(key), makeData(bytes, length));
  }
  void setData(std::string key, Bytes value) { set(std::move(key), makeData(std::move(value))); }
  void setDate(std::string key, std::int64_t nanoseconds) {
    set(std::move(key), makeDate(nanoseconds));
  }
  void setUuid(std::string key, const Uuid& value) { set(std::move(key), makeUuid(value)); }
  bool remove(std::string_view key);

  // Dictionary reads: nullptr / false / 0 / empty when the key is absent or
  // holds another type.
  const Object* get(std::string_view key) const;
  Object* get(std::string_view key);
  bool getBool(std::string_view key) const;
  std::int64_t getInt64(std::string_view key) const;
  std::uint64_t getUInt64(std::string_view key) const;
  double getDouble(std::string_view key) const;
  const std::string& getString(std::string_view key) const;
  const Bytes& getData(std::string_view key) const;
  std::int64_t getDate(std::string_view key) const;
  Uuid getUuid(std::string_view key) const;
  const Object* getDictionary(std::string_view key) const;
  const Object* getArray(std::string_view key) const;

  // Visits a dictionary's entries in insertion order until the visitor
  // answers false; answers whether the visit reached the end.
  bool apply(const DictionaryVisitor& visitor) const;

  // Array access; ignored / nullptr unless this is an array.
  void append(Object value);
  const Object* at(std::size_t index) const;
  bool applyArray(const ArrayVisitor& visitor) const;

  // Deep value equality. Connections compare by identity, errors by their
  // kind and description, so an event can be compared with a well-known one.
  friend bool operator==(const Object& a, const Object& b);

  // One-line human-readable text, for logs and test failures.
  std::string description() const;

 private:
  struct Date {
    std::int64_t nanoseconds;
    friend bool operator==(const Date&, const Date&) = default;
  };
  struct ErrorInfo;
  struct ArrayRep;
  struct DictionaryRep;

  using Rep =
      std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, Bytes,
                   Date, Uuid, std::unique_ptr<ArrayRep>, std::unique_ptr<DictionaryRep>,
                   std::shared_ptr<Connection>, std::shared_ptr<const ErrorInfo>>;

  explicit Object(Rep rep);
  static Rep copyRep(const Rep& rep);
  void describe(std::string& out) const;

  friend const Object& errorConnectionInvalid();
  friend const Object& errorTerminationImminent();

  Rep rep_;
};

// The well-known error events. Connection invalid: the peer went away, broke
// the protocol, or the connection was cancelled (delivered once, last).
// Termination imminent: the process was asked to stop (SIGTERM).
const Object& errorConnectionInvalid();
const Object& errorTerminationImminent();

}  // namespace ovix
