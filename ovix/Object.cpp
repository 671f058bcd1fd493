#include "ovix/Object.h"

#include <bit>
#include <cinttypes>
#include <cstdio>
#include <unordered_map>

namespace ovix {

struct Object::ErrorInfo {
  // 0 for errors of no particular kind; the well-known ones have their own.
  int kind = 0;
  std::string description;
};

struct Object::ArrayRep {
  std::vector<Object> items;
};

// Entries in insertion order plus an index for lookups; a peer decides how
// many keys a message has, so lookups must not be linear.
struct Object::DictionaryRep {
  std::vector<std::pair<std::string, Object>> entries;
  std::unordered_map<std::string_view, std::size_t> index;

  void rebuildIndex() {
    index.clear();
    index.reserve(entries.size());
    for (std::size_t i = 0; i < entries.size(); ++i) index.emplace(entries[i].first, i);
  }
};

namespace {

const std::string& emptyString() {
  static const std::string* s = new std::string;
  return *s;
}

const Bytes& emptyBytes() {
  static const Bytes* b = new Bytes;
  return *b;
}

}  // namespace

const char* typeName(Type type) {
  switch (type) {
    case Type::Null:
      return "null";
    case Type::Bool:
      return "bool";
    case Type::Int64:
      return "int64";
    case Type::UInt64:
      return "uint64";
    case Type::Double:
      return "double";
    case Type::String:
      return "string";
    case Type::Data:
      return "data";
    case Type::Date:
      return "date";
    case Type::Uuid:
      return "uuid";
    case Type::Array:
      return "array";
    case Type::Dictionary:
      return "dictionary";
    case Type::Connection:
      return "connection";
    case Type::Error:
      return "error";
  }
  return "unknown";
}

Object::Object() = default;
Object::Object(Rep rep) : rep_(std::move(rep)) {}
Object::Object(const Object& other) : rep_(copyRep(other.rep_)) {}
Object::Object(Object&& other) noexcept = default;
Object& Object::operator=(const Object& other) {
  if (this != &other) rep_ = copyRep(other.rep_);
  return *this;
}
Object& Object::operator=(Object&& other) noexcept = default;
Object::~Object() = default;

Object::Rep Object::copyRep(const Rep& rep) {
  if (auto* a = std::get_if<std::unique_ptr<ArrayRep>>(&rep)) {
    return std::make_unique<ArrayRep>(**a);
  }
  if (auto* d = std::get_if<std::unique_ptr<DictionaryRep>>(&rep)) {
    auto copy = std::make_unique<DictionaryRep>();
    copy->entries = (*d)->entries;
    // The index holds views into the keys, so it must point at the copy's.
    copy->rebuildIndex();
    return copy;
  }
  return std::visit(
      [](const auto& v) -> Rep {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, std::unique_ptr<ArrayRep>> ||
                      std::is_same_v<T, std::unique_ptr<DictionaryRep>>) {
          return Rep();  // handled above
        } else {
          return Rep(v);
        }
      },
      rep);
}

Object Object::makeNull() { return Object(); }
Object Object::makeBool(bool value) { return Object(Rep(value)); }
Object Object::makeInt64(std::int64_t value) { return Object(Rep(value)); }
Object Object::makeUInt64(std::uint64_t value) { return Object(Rep(value)); }
Object Object::makeDouble(double value) { return Object(Rep(value)); }
Object Object::makeString(std::string_view value) { return Object(Rep(std::string(value))); }
Object Object::makeData(Bytes value) { return Object(Rep(std::move(value))); }
Object Object::makeData(const void* bytes, std::size_t length) {
  const auto* p = static_cast<const std::uint8_t*>(bytes);
  return Object(Rep(Bytes(p, p + length)));
}
Object Object::makeDate(std::int64_t nanosecondsSince1970) {
  return Object(Rep(Date{nanosecondsSince1970}));
}
Object Object::makeUuid(const Uuid& value) { return Object(Rep(value)); }
Object Object::makeArray() { return Object(Rep(std::make_unique<ArrayRep>())); }
Object Object::makeDictionary() { return Object(Rep(std::make_unique<DictionaryRep>())); }
Object Object::makeConnection(std::shared_ptr<Connection> connection) {
  return Object(Rep(std::move(connection)));
}
Object Object::makeError(std::string description) {
  return Object(Rep(std::shared_ptr<const ErrorInfo>(
      std::make_shared<ErrorInfo>(ErrorInfo{0, std::move(description)}))));
}

const Object& errorConnectionInvalid() {
  static const Object* e = new Object(Object::Rep(std::shared_ptr<const Object::ErrorInfo>(
      std::make_shared<Object::ErrorInfo>(Object::ErrorInfo{1, "Connection invalid"}))));
  return *e;
}

const Object& errorTerminationImminent() {
  static const Object* e = new Object(Object::Rep(std::shared_ptr<const Object::ErrorInfo>(
      std::make_shared<Object::ErrorInfo>(Object::ErrorInfo{2, "Termination imminent"}))));
  return *e;
}

Type Object::type() const { return static_cast<Type>(rep_.index()); }

bool Object::boolValue() const {
  const bool* b = std::get_if<bool>(&rep_);
  return b ? *b : false;
}

std::int64_t Object::int64Value() const {
  const std::int64_t* v = std::get_if<std::int64_t>(&rep_);
  return v ? *v : 0;
}

std::uint64_t Object::uint64Value() const {
  const std::uint64_t* v = std::get_if<std::uint64_t>(&rep_);
  return v ? *v : 0;
}

double Object::doubleValue() const {
  const double* v = std::get_if<double>(&rep_);
  return v ? *v : 0.0;
}

const std::string& Object::stringValue() const {
  const std::string* v = std::get_if<std::string>(&rep_);
  return v ? *v : emptyString();
}

const Bytes& Object::dataValue() const {
  const Bytes* v = std::get_if<Bytes>(&rep_);
  return v ? *v : emptyBytes();
}

std::int64_t Object::dateValue() const {
  const Date* v = std::get_if<Date>(&rep_);
  return v ? v->nanoseconds : 0;
}

Uuid Object::uuidValue() const {
  const Uuid* v = std::get_if<Uuid>(&rep_);
  return v ? *v : Uuid{};
}

std::shared_ptr<Connection> Object::connectionValue() const {
  const auto* v = std::get_if<std::shared_ptr<Connection>>(&rep_);
  return v ? *v : nullptr;
}

const std::string& Object::errorDescription() const {
  const auto* v = std::get_if<std::shared_ptr<const ErrorInfo>>(&rep_);
  return v ? (*v)->description : emptyString();
}

std::size_t Object::count() const {
  if (const auto* a = std::get_if<std::unique_ptr<ArrayRep>>(&rep_)) return (*a)->items.size();
  if (const auto* d = std::get_if<std::unique_ptr<DictionaryRep>>(&rep_)) {
    return (*d)->entries.size();
  }
  return 0;
}

void Object::set(std::string key, Object value) {
  auto* d = std::get_if<std::unique_ptr<DictionaryRep>>(&rep_);
  if (!d) return;
  DictionaryRep& rep = **d;
  auto it = rep.index.find(key);
  if (it != rep.index.end()) {
    rep.entries[it->second].second = std::move(value);
    return;
  }
  const bool moves = rep.entries.size() == rep.entries.capacity();
  rep.entries.emplace_back(std::move(key), std::move(value));
  // Growing the vector moves the keys the index views point at.
  if (moves) {
    rep.rebuildIndex();
  } else {
    rep.index.emplace(rep.entries.back().first, rep.entries.size() - 1);
  }
}

bool Object::remove(std::string_view key) {
  auto* d = std::get_if<std::unique_ptr<DictionaryRep>>(&rep_);
  if (!d) return false;
  DictionaryRep& rep = **d;
  auto it = rep.index.find(key);
  if (it == rep.index.end()) return false;
  rep.entries.erase(rep.entries.begin() + static_cast<std::ptrdiff_t>(it->second));
  rep.rebuildIndex();
  return true;
}

const Object* Object::get(std::string_view key) const {
  const auto* d = std::get_if<std::unique_ptr<DictionaryRep>>(&rep_);
  if (!d) return nullptr;
  auto it = (*d)->index.find(key);
  return it == (*d)->index.end() ? nullptr : &(*d)->entries[it->second].second;
}

Object* Object::get(std::string_view key) {
  return const_cast<Object*>(static_cast<const Object*>(this)->get(key));
}

bool Object::getBool(std::string_view key) const {
  const Object* v = get(key);
  return v ? v->boolValue() : false;
}

std::int64_t Object::getInt64(std::string_view key) const {
  const Object* v = get(key);
  return v ? v->int64Value() : 0;
}

std::uint64_t Object::getUInt64(std::string_view key) const {
  const Object* v = get(key);
  return v ? v->uint64Value() : 0;
}

double Object::getDouble(std::string_view key) const {
  const Object* v = get(key);
  return v ? v->doubleValue() : 0.0;
}

const std::string& Object::getString(std::string_view key) const {
  const Object* v = get(key);
  return v ? v->stringValue() : emptyString();
}

const Bytes& Object::getData(std::string_view key) const {
  const Object* v = get(key);
  return v ? v->dataValue() : emptyBytes();
}

std::int64_t Object::getDate(std::string_view key) const {
  const Object* v = get(key);
  return v ? v->dateValue() : 0;
}

Uuid Object::getUuid(std::string_view key) const {
  const Object* v = get(key);
  return v ? v->uuidValue() : Uuid{};
}

const Object* Object::getDictionary(std::string_view key) const {
  const Object* v = get(key);
  return v && v->isDictionary() ? v : nullptr;
}

const Object* Object::getArray(std::string_view key) const {
  const Object* v = get(key);
  return v && v->isArray() ? v : nullptr;
}

bool Object::apply(const DictionaryVisitor& visitor) const {
  const auto* d = std::get_if<std::unique_ptr<DictionaryRep>>(&rep_);
  if (!d) return true;
  for (const auto& [key, value] : (*d)->entries) {
    if (!visitor(key, value)) return false;
  }
  return true;
}

void Object::append(Object value) {
  if (auto* a = std::get_if<std::unique_ptr<ArrayRep>>(&rep_)) {
    (*a)->items.push_back(std::move(value));
  }
}

const Object* Object::at(std::size_t index) const {
  const auto* a = std::get_if<std::unique_ptr<ArrayRep>>(&rep_);
  if (!a || index >= (*a)->items.size()) return nullptr;
  return &(*a)->items[index];
}

bool Object::applyArray(const ArrayVisitor& visitor) const {
  const auto* a = std::get_if<std::unique_ptr<ArrayRep>>(&rep_);
  if (!a) return true;
  for (std::size_t i = 0; i < (*a)->items.size(); ++i) {
    if (!visitor(i, (*a)->items[i])) return false;
  }
  return true;
}

bool operator==(const Object& a, const Object& b) {
  if (a.type() != b.type()) return false;
  switch (a.type()) {
    case Type::Array: {
      const auto& x = std::get<std::unique_ptr<Object::ArrayRep>>(a.rep_)->items;
      const auto& y = std::get<std::unique_ptr<Object::ArrayRep>>(b.rep_)->items;
      return x == y;
    }
    case Type::Dictionary: {
      const auto& x = std::get<std::unique_ptr<Object::DictionaryRep>>(a.rep_)->entries;
      const auto& y = std::get<std::unique_ptr<Object::DictionaryRep>>(b.rep_)->entries;
      return x == y;
    }
    case Type::Error: {
      const auto& x = *std::get<std::shared_ptr<const Object::ErrorInfo>>(a.rep_);
      const auto& y = *std::get<std::shared_ptr<const Object::ErrorInfo>>(b.rep_);
      return x.kind == y.kind && x.description == y.description;
    }
    case Type::Double:
      // Bitwise, so a NaN that went through the codec equals itself.
      return std::bit_cast<std::uint64_t>(a.doubleValue()) ==
             std::bit_cast<std::uint64_t>(b.doubleValue());
    default:
      return a.rep_ == b.rep_;
  }
}

std::string Object::description() const {
  std::string out;
  describe(out);
  return out;
}

void Object::describe(std::string& out) const {
  char buf[64];
  switch (type()) {
    case Type::Null:
      out += "null";
      return;
    case Type::Bool:
      out += boolValue() ? "true" : "false";
      return;
    case Type::Int64:
      std::snprintf(buf, sizeof buf, "%" PRId64, int64Value());
      break;
    case Type::UInt64:
      std::snprintf(buf, sizeof buf, "%" PRIu64 "u", uint64Value());
      break;
    case Type::Double:
      std::snprintf(buf, sizeof buf, "%.17g", doubleValue());
      break;
    case Type::String:
      out += '"';
      out += stringValue();
      out += '"';
      return;
    case Type::Data:
      out += "<";
      for (std::uint8_t b : dataValue()) {
        std::snprintf(buf, sizeof buf, "%02x", b);
        out += buf;
      }
      out += ">";
      return;
    case Type::Date:
      std::snprintf(buf, sizeof buf, "date(%" PRId64 "ns)", dateValue());
      break;
    case Type::Uuid: {
      const Uuid u = uuidValue();
      out += "uuid(";
      for (std::size_t i = 0; i < u.size(); ++i) {
        std::snprintf(buf, sizeof buf, "%02x", u[i]);
        out += buf;
        if (i == 3 || i == 5 || i == 7 || i == 9) out += '-';
      }
      out += ")";
      return;
    }
    case Type::Array:
      out += "[";
      applyArray([&](std::size_t i, const Object& v) {
        if (i) out += ", ";
        v.describe(out);
        return true;
      });
      out += "]";
      return;
    case Type::Dictionary: {
      out += "{";
      bool first = true;
      apply([&](const std::string& k, const Object& v) {
        if (!first) out += ", ";
        first = false;
        out += '"';
        out += k;
        out += "\": ";
        v.describe(out);
        return true;
      });
      out += "}";
      return;
    }
    case Type::Connection:
      out += "<connection>";
      return;
    case Type::Error:
      out += "<error: " + errorDescription() + ">";
      return;
  }
  out += buf;
}

}  // namespace ovix
