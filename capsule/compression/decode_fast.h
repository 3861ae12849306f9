// The decompressor's inner loop: tokens without a bounds check for each.
//
// Contract. It starts and ends between tokens or groups and between copies (matchRest is 0). It
// goes on while kFastInput bytes of source and kFastOutput bytes of destination remain, and writes
// at most to outEnd. It stops before an end marker, before an offset that is corrupt, and behind
// the header of a match of 8 bytes and more, whose groups it leaves to ReadGroups.
#pragma once

#include "capsule/compression/decode_state.h"

namespace capsule::lzs {

inline constexpr uint32_t kCopySize = 8;
inline constexpr uint32_t kLongestPlainLength = 8;  // what a token gives without its groups
inline constexpr uint32_t kFastInput = 16;
inline constexpr uint32_t kFastOutput = 32;

void DecodeFast(DecodeState& state);

}  // namespace capsule::lzs
