// The frame codec: a fixed header (magic, version, payload length) then one
// encoded dictionary. docs/ovix-wire-format.md describes every byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "ovix/Object.h"

namespace ovix::wire {

inline constexpr std::uint8_t kMagic[4] = {'O', 'V', 'X', 'F'};
inline constexpr std::uint16_t kVersion = 1;
inline constexpr std::size_t kHeaderSize = 12;
inline constexpr std::uint32_t kMaxPayload = 16u * 1024 * 1024;
// Containers nested in one another, counting the top-level dictionary.
inline constexpr int kMaxDepth = 32;
// Objects in one frame, so a frame of tiny values cannot blow up in memory.
inline constexpr std::size_t kMaxObjects = 1u << 20;

enum class Tag : std::uint8_t {
  Null = 0x00,
  Bool = 0x01,
  Int64 = 0x02,
  UInt64 = 0x03,
  Double = 0x04,
  String = 0x05,
  Data = 0x06,
  Date = 0x07,
  Uuid = 0x08,
  Array = 0x09,
  Dictionary = 0x0A,
};

// Reads a header; the payload length, or an error text when the magic,
// version, reserved bytes or length are wrong.
struct HeaderResult {
  bool ok = false;
  std::uint32_t payloadLength = 0;
  std::string error;
};
HeaderResult decodeHeader(std::span<const std::uint8_t, kHeaderSize> header);

// Decodes a payload (the bytes after the header) into a dictionary.
struct DecodeResult {
  std::optional<Object> message;
  std::string error;
  std::size_t objects = 0;  // values in the message, the top level included
};
DecodeResult decodePayload(std::span<const std::uint8_t> payload);

// Decodes one whole frame (header and payload, nothing after).
DecodeResult decodeFrame(std::span<const std::uint8_t> frame);

// Encodes a dictionary as a whole frame; false (with a reason) when the
// object cannot travel: not a dictionary, an event-only type inside, an
// invalid UTF-8 string, too deep, too many objects or too large.
bool encodeFrame(const Object& message, Bytes& frame, std::string* error = nullptr);

}  // namespace ovix::wire
