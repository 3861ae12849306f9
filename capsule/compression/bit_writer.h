// How the compressor's inner loop writes tokens: without a question where it can, since no token
// foretells the next.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

#include "capsule/compression/lzs_format.h"
#include "capsule/compression/word_access.h"

namespace capsule::lzs {

inline constexpr uint32_t kStoreSize = 8;
inline constexpr uint32_t kFastRoom = 24;
// The bits held at entry, one token and a store; what remains holds the words of a token.
static_assert(kFastRoom >= 31 / 8 + kStoreSize + kStoreSize);
static_assert(31 + kMaxHeaderBits <= 64);
// Between tokens less than a byte is held, and the first group goes out with the header.
static_assert(7 + kMaxHeaderBits + kGroupBits <= 64);

// Bits on their way out, left-aligned. Between tokens fewer than eight are held, except at entry.
struct BitWriter {
  unsigned char* out;
  uint64_t bits;
  unsigned count;

  void Add(uint32_t value, unsigned width) {
    bits |= static_cast<uint64_t>(value) << (64 - count - width);
    count += width;
  }
  void Flush() {
    StoreBig64(out, bits);
    out += count >> 3;
    bits <<= count & ~7U;
    count &= 7;
  }
};

// Lengths with at most one group, by a table; one more for what all longer ones begin with. None
// for a literal.
inline constexpr uint32_t kFirstLong = kFirstGroupedLength + kFullGroup;
constexpr std::array<Code, kFirstLong + 1> MakeLengthCodes() {
  std::array<Code, kFirstLong + 1> codes{};
  for (uint32_t length = kMinMatch; length < kFirstGroupedLength; ++length)
    codes[length] = LengthCode(length);
  for (uint32_t length = kFirstGroupedLength; length <= kFirstLong; ++length)
    codes[length] = {kFullGroup << kGroupBits | (length - kFirstGroupedLength),
                     kMaxLengthBits + kGroupBits};
  return codes;
}
inline constexpr std::array<Code, kFirstLong + 1> kLengthCodes = MakeLengthCodes();

// A match up to the group that ends its length or is followed by others.
inline Code ShortMatchCode(uint32_t offset, uint32_t length) {
  const Code code = kLengthCodes[length];
  const auto isLong = static_cast<uint32_t>(offset > kMaxShortOffset);
  const uint32_t head = offset + 0x180 + isLong * (0x1000 - 0x180);
  return {head << code.bits | code.value,
          kShortOffsetBits + isLong * (kLongOffsetBits - kShortOffsetBits) + code.bits};
}

// The groups of a length from kFirstLong on behind the first, or false if the destination might not
// have room.
[[gnu::noinline]] inline bool WriteGroups(BitWriter& writer, uint32_t rest,
                                          const unsigned char* outLimit) {
  constexpr uint32_t kAtOnce = 8;  // groups
  const uint64_t bytes = (uint64_t{rest} / kFullGroup + 1) * kGroupBits / 8;
  if (bytes + kFastRoom > static_cast<uint64_t>(outLimit - writer.out)) return false;
  for (; rest >= kAtOnce * kFullGroup; rest -= kAtOnce * kFullGroup) {
    writer.Add(0xFFFFFFFF, kAtOnce * kGroupBits);
    writer.Flush();
  }
  for (; rest >= kFullGroup; rest -= kFullGroup) writer.Add(kFullGroup, kGroupBits);
  writer.Add(rest, kGroupBits);
  writer.Flush();
  return true;
}

// False, with nothing written, if the destination might not have room. The writer of a loop is a
// local that no function gets the address of, so that it stays in registers.
[[gnu::always_inline]] inline bool WriteMatch(BitWriter& writer, uint32_t offset, uint32_t length,
                                              const unsigned char* outLimit) {
  BitWriter after = writer;
  const Code code = ShortMatchCode(offset, std::min(length, kFirstLong));
  after.Add(code.value, code.bits);
  after.Flush();
  if (length >= kFirstLong) {
    BitWriter groups = after;
    if (!WriteGroups(groups, length - kFirstLong, outLimit)) return false;
    after = groups;
  }
  writer = after;
  return true;
}

// Writes a token whose match, if it is one, is shorter than kFirstGroupedLength.
inline void WriteShort(BitWriter& writer, uint32_t literal, uint32_t offset, uint32_t equal) {
  const uint32_t ifMatch = 0 - static_cast<uint32_t>(equal >= kMinMatch);
  const Code match = ShortMatchCode(offset, equal);
  writer.Add(literal ^ ((literal ^ match.value) & ifMatch),
             kLiteralBits + ((match.bits - kLiteralBits) & ifMatch));
  writer.Flush();
}

}  // namespace capsule::lzs
