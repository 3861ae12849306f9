// The decompressor's inner loop: tokens without a bounds check for each.
//
// Contract. On entry the next bits are a token (status Token, matchRest 0), kFastInput bytes of
// source and kFastOutput bytes of destination remain. It goes on while that is so. Nothing is
// written behind outEnd, nothing read behind inEnd. It stops before a token or behind a part of a
// match, with the state set accordingly: before an end marker or a corrupt offset, which the
// careful steps judge; within a match of 23 bytes and more if the source or the room ends there.
#pragma once

#include "capsule/compression/decode_state.h"

namespace capsule::lzs {

// A round loads the nine bytes that begin eight behind the next bit's; it decodes up to
// kTokensAtOnce tokens of up to kMaxCopied bytes, and stores kCopySize for each; or eight for a run
// of literals, of which up to kLiteralsAtOnce count.
inline constexpr uint32_t kLoadSize = 8;
inline constexpr uint32_t kLiteralsAtOnce = 7;
inline constexpr uint32_t kTokensAtOnce = 3;
inline constexpr uint32_t kCopySize = 32;
inline constexpr uint32_t kMaxCopied = 22;
inline constexpr uint32_t kFastInput = 2 * kLoadSize + 1;
inline constexpr uint32_t kFastOutput = (kTokensAtOnce - 1) * kMaxCopied + kCopySize;
static_assert(kFastOutput >= 8);

void DecodeFast(DecodeState& state);

// As DecodeFast of both, side by side, until at least one of them stops. The other stands before a
// token at which it may go on.
struct Stopped {
  bool a;
  bool b;
};
Stopped DecodeFastPair(DecodeState& a, DecodeState& b);

}  // namespace capsule::lzs
