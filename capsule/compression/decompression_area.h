// The decompressor's history area: what it keeps between calls, in the caller's memory.
//
// The area may lie at any address and is moved byte by byte: the structure is packed, and no member
// points into it. The pointer to a caller's buffer is kept only for the side that a call leaves
// unfinished, and there is at most one.
#pragma once

#include <cstdint>

#include "capsule/compression/lzs_format.h"

namespace capsule::lzs {

inline constexpr uint32_t kDecompressionAreaSize = 4160;
inline constexpr uint16_t kDecompressionSignature = 0x1234;
inline constexpr uint32_t kCarrySize = 7;
inline constexpr uint32_t kMaxCarried = 3;  // a token cut short, with up to 7 bits before it
inline constexpr uint32_t kHistoryBufferSize = 4112;

static_assert((7 + kMaxHeaderBits - 1 + 7) / 8 <= kMaxCarried);

enum class DecodeStatus : uint8_t {
  Between = 0x40,  // at the start of a unit
  Token = 0x41,    // inside a unit; the next bits are a token
  Groups = 0x42,   // inside a unit; the next bits are a group of a match's length
  Corrupt = 0x43,  // the stream was wrong; nothing more is decoded
};

enum class PendingSide : uint8_t { None, Source, Destination };

struct [[gnu::packed]] DecompressionArea {
  uint64_t savedPointer;  // to the next byte of the saved side
  uint32_t savedCount;    // bytes or room from there
  uint32_t matchRest;     // bytes of a match still to be copied
  uint16_t matchOffset;   // of that match
  uint16_t historyCount;  // bytes in the buffer, the latest last
  uint16_t signature;
  DecodeStatus status;
  PendingSide saved;
  uint8_t bitOffset;  // bits of the first carried or first saved source byte already used
  uint8_t carried;    // source bytes in `carry`: the beginning of a token cut short
  unsigned char spare[15];
  unsigned char carry[kCarrySize];
  unsigned char history[kHistoryBufferSize];
};
static_assert(sizeof(DecompressionArea) == kDecompressionAreaSize &&
              alignof(DecompressionArea) == 1);

}  // namespace capsule::lzs
