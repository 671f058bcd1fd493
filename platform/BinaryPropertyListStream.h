// Writes one dictionary of many entries as a binary property list ("bplist00")
// while the entries are collected: each value goes to the output when it is
// added, and only object offsets and the top dictionary's references stay in
// memory, a few bytes per object, whatever the values hold.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/Result.h"
#include "platform/Value.h"

namespace platform {

class BinaryPropertyListStream {
 public:
  // Where the bytes go, in order; and where bytes already written are read
  // back (to tell two keys with the same hash apart).
  using Sink = std::function<Status(std::span<const std::uint8_t>)>;
  using ReadBack = std::function<Status(std::uint64_t offset, std::span<std::uint8_t>)>;

  BinaryPropertyListStream(Sink sink, ReadBack readBack);

  // Adds an entry to the top dictionary; an existing key gets the new value
  // and keeps its place. Strings must be valid UTF-8.
  Status add(std::string_view key, const Value& value);
  // Writes the top dictionary, the offset table and the trailer.
  Status finish();

 private:
  Status visit(const Value& v, int depth, std::uint32_t* ref);
  // Writes the object encoded in scratch_, or finds it written already.
  Status emit(bool intern, std::uint32_t* ref);
  Status flush();
  // Moves what scratch_ holds to the output.
  Status spill();
  void putBE(std::uint64_t v, unsigned bytes);
  void putInt(std::uint64_t v);
  void putHeader(unsigned type, std::uint64_t count);
  bool putString(std::string_view s);
  void putScalar(const Value& v);
  // Whether the object ref holds exactly the bytes in scratch_.
  Status holdsScratch(std::uint32_t ref, bool* same);
  void growIndex();

  Sink sink_;
  ReadBack readBack_;
  std::vector<std::uint8_t> buffer_;
  std::vector<std::uint8_t> scratch_;
  std::uint64_t written_ = 0;  // bytes already handed to the sink
  // Offsets fit 32 bits: outputs of 4 GiB and more are refused.
  std::vector<std::uint32_t> offsets_;
  std::vector<std::uint32_t> refs_;
  std::vector<std::uint16_t> utf16_;
  // Small objects met again and again (the records' keys, type and account
  // names, flags, small numbers) are written once, by their encoded bytes;
  // the map is capped so it cannot grow with the number of entries.
  struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>()(s); }
  };
  std::unordered_map<std::string, std::uint32_t, TextHash, std::equal_to<>> interned_;
  // The top dictionary: key and value references in order of first
  // addition, each key's hash, and an open-addressed table of entry
  // numbers (plus one) by hash.
  std::vector<std::uint32_t> keyRefs_;
  std::vector<std::uint32_t> valueRefs_;
  std::vector<std::uint64_t> keyHashes_;
  std::vector<std::uint32_t> index_;
  Status failed_;
};

}  // namespace platform
