#include "capsule/compression/decode_fast.h"

#include "capsule/compression/word_access.h"

namespace capsule::lzs {

void DecodeFast(DecodeState& state) {
  const unsigned char* const lastIn = state.inEnd - kFastInput;
  unsigned char* const lastOut = state.outEnd - kFastOutput;
  while (state.in <= lastIn && state.out <= lastOut && state.status == DecodeStatus::Token) {
    const uint64_t bits = LoadBig64(state.in) << state.bitOffset;
    if (bits >> 63 == 0) {
      *state.out++ = static_cast<unsigned char>(bits >> 55);
      state.Skip(kLiteralBits);
      continue;
    }
    const bool isShort = (bits >> 62 & 1) != 0;
    const auto offset =
        static_cast<uint32_t>(isShort ? bits >> 55 & kMaxShortOffset : bits >> 51 & kMaxOffset);
    const uint32_t offsetBits = isShort ? kShortOffsetBits : kLongOffsetBits;
    const auto code = static_cast<uint32_t>(bits << offsetBits >> 60);
    if (state.IsCorruptOffset(offset)) return;  // or the end marker
    state.Skip(offsetBits + kLengthBits[code]);
    const uint32_t length = kLengths[code];
    if (code == kFullGroup) {
      state.matchOffset = offset;
      state.status = DecodeStatus::Groups;
    }
    if (offset >= kCopySize) {
      std::memcpy(state.out, state.out - offset, kCopySize);
    } else {
      for (uint32_t i = 0; i < length; ++i) state.out[i] = *(state.out + i - offset);
    }
    state.out += length;
  }
}

}  // namespace capsule::lzs
