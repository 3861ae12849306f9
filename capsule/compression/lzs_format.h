// The LZS bit stream: what both halves of the codec know of it.
//
//   literal     0, 8 bits
//   match       1, offset, length
//   offset      1, 7 bits (1 to 127)  |  0, 11 bits (1 to 2047)
//   length      2, 3, 4: 00 01 10  |  5, 6, 7: 1100 1101 1110
//               8 and more: 1111, then groups of 4 bits; each group 1111 adds 15, the first
//               smaller one ends the length
//   end marker  1, 1, 7 zero bits; then zero bits to the next byte boundary
//
// Bits are taken most significant first.
#pragma once

#include <cstdint>

namespace capsule::lzs {

inline constexpr uint32_t kMinMatch = 2;
inline constexpr uint32_t kMaxOffset = 2047;
inline constexpr uint32_t kMaxShortOffset = 127;
inline constexpr uint32_t kFirstGroupedLength = 8;  // the length whose rest is coded in groups
inline constexpr uint32_t kFullGroup = 15;          // a group with this value is followed by one
inline constexpr unsigned kGroupBits = 4;

inline constexpr unsigned kLiteralBits = 9;
inline constexpr unsigned kShortOffsetBits = 9;  // with the two bits in front of it
inline constexpr unsigned kLongOffsetBits = 13;
inline constexpr unsigned kMaxLengthBits = 4;
inline constexpr unsigned kMaxHeaderBits = kLongOffsetBits + kMaxLengthBits;

inline constexpr uint32_t kEndMarker = 0x180;
inline constexpr unsigned kEndMarkerBits = kShortOffsetBits;

struct Code {
  uint32_t value;  // right-aligned
  unsigned bits;
};

// The code of lengths 2 to 7, and the 1111 that every longer one begins with.
constexpr Code LengthCode(uint32_t length) {
  if (length < 5) return {length - kMinMatch, 2};
  return {length < kFirstGroupedLength ? length + 7 : kFullGroup, kMaxLengthBits};
}

// A match up to the first bits of its length.
inline Code MatchHeader(uint32_t offset, uint32_t length) {
  const Code code = LengthCode(length);
  const bool isShort = offset <= kMaxShortOffset;
  const uint32_t head = isShort ? 0x180 | offset : 0x1000 | offset;
  return {head << code.bits | code.value,
          (isShort ? kShortOffsetBits : kLongOffsetBits) + code.bits};
}

}  // namespace capsule::lzs
