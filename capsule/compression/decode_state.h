// What the careful steps and the inner loop of the decompressor share.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "capsule/compression/decompression_area.h"

namespace capsule::lzs {

// Untrusted: whether an offset leads nowhere, or before the `available` bytes. Every offset is
// judged by this before it is used.
inline bool IsCorruptOffset(uint64_t offset, std::ptrdiff_t available) {
  return offset - 1 >= static_cast<uint64_t>(available);
}

struct DecodeState {
  const unsigned char* in;  // the byte that has the next bit
  const unsigned char* inEnd;
  uint32_t bitOffset;  // of the next bit in *in, 0 to 7
  uint32_t matchRest;  // bytes of the current match still to be copied
  uint32_t matchOffset;
  DecodeStatus status;
  unsigned char* out;
  unsigned char* outEnd;
  const unsigned char* outBase;  // what lies from here to `out` may be referred to

  uint32_t Room() const { return static_cast<uint32_t>(outEnd - out); }
  uint64_t BitsLeft() const { return static_cast<uint64_t>(inEnd - in) * 8 - bitOffset; }
  void Skip(uint32_t bits) {
    in += (bitOffset + bits) / 8;
    bitOffset = (bitOffset + bits) % 8;
  }
};

// The length that 4 bits begin, and how many of them are its code. Index 15 begins groups.
inline constexpr uint8_t kLengths[16] = {2, 2, 2, 2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 6, 7, 8};
inline constexpr uint8_t kLengthBits[16] = {2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 4, 4, 4, 4};

// Copies `count` bytes from `offset` back, as if byte by byte, and writes nothing else.
inline void CopyMatch(unsigned char* out, uint32_t offset, uint32_t count) {
  const unsigned char* from = out - offset;
  if (offset == 1) {
    std::memset(out, *from, count);
    return;
  }
  // What is copied repeats with the offset, so what may be copied at once doubles.
  while (count > offset) {
    std::memcpy(out, from, offset);
    out += offset;
    count -= offset;
    offset *= 2;
  }
  std::memcpy(out, from, count);
}

}  // namespace capsule::lzs
