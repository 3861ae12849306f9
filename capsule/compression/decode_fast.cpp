// A round of the loop decodes from one load of 64 bits: either a run of literals, whose bytes are
// gathered and stored all at once, or two tokens. Which of the tokens comes is hard to predict, so
// those go without a branch: what a literal and a match have in common is that some bytes are
// copied from somewhere. For a literal that is a table of all bytes. 32 bytes are copied whatever
// the length is; what is stored too much is overwritten by the next copy.
#include "capsule/compression/decode_fast.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>

#include "capsule/compression/word_access.h"

#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace capsule::lzs {
namespace {

// Bits that a load holds at the least, after up to seven are shifted out.
constexpr unsigned kLoadedBits = 57;

// A match whose length has at most one group; two are decoded from one load, and a third token
// where those were shorter.
constexpr unsigned kShortMatchBits = kMaxHeaderBits + kGroupBits;
static_assert(2 * kShortMatchBits <= kLoadedBits);
static_assert(kLiteralsAtOnce * kLiteralBits <= kLoadedBits);

// The first bits of tokens that are all literals: of four, which are worth a run, and of as many as
// a run may have; the last of those stands for its end.
constexpr uint64_t kRunFlags = 0x8040201000000000;
constexpr uint64_t kTokenFlags = 0x8040201008040000;
constexpr uint64_t kRunEnd = uint64_t{1} << (63 - kLiteralsAtOnce * kLiteralBits);

// What a token says but for its offset or byte.
struct TokenEntry {
  uint8_t bits;    // of the whole token, with one group of the length if there is one
  uint8_t length;  // 0: the length has more than one group
};

// By the two bits that a token begins with (0 and 1: a literal) and the eight bits behind the
// offset.
constexpr std::array<TokenEntry, 1024> MakeTokens() {
  std::array<TokenEntry, 1024> table{};
  for (unsigned i = 0; i < table.size(); ++i) {
    const unsigned form = i >> 8;
    const unsigned code = i >> 4 & 15;
    const unsigned group = i & 15;
    const unsigned offsetBits = form == 3 ? kShortOffsetBits : kLongOffsetBits;
    if (form < 2)
      table[i] = {kLiteralBits, 1};
    else if (code < kFullGroup)
      table[i] = {static_cast<uint8_t>(offsetBits + kLengthBits[code]), kLengths[code]};
    else if (group < kFullGroup)
      table[i] = {static_cast<uint8_t>(offsetBits + kMaxLengthBits + kGroupBits),
                  static_cast<uint8_t>(kFirstGroupedLength + group)};
  }
  return table;
}
constexpr std::array<TokenEntry, 1024> kTokens = MakeTokens();
static_assert(kMaxCopied == kFirstGroupedLength + kFullGroup - 1 && kMaxCopied <= kCopySize);

// The offset of a match is 11 bits, or the upper 7 of those; what follows it moves likewise.
inline unsigned ShortShift(uint64_t bits) { return static_cast<unsigned>(bits >> 60 & 4); }
inline uint64_t OffsetOf(uint64_t bits) { return (bits >> 51 & kMaxOffset) >> ShortShift(bits); }
inline TokenEntry TokenOf(uint64_t bits) {
  return kTokens[bits >> 62 << 8 | (bits >> (43 + ShortShift(bits)) & 0xFF)];
}
static_assert(kLongOffsetBits - kShortOffsetBits == 4);

// Every byte, where a copy of one finds it; and bytes to copy behind the last.
constexpr std::array<unsigned char, 256 + kCopySize> MakeBytes() {
  std::array<unsigned char, 256 + kCopySize> table{};
  for (unsigned i = 0; i < table.size(); ++i) table[i] = static_cast<unsigned char>(i);
  return table;
}
constexpr std::array<unsigned char, 256 + kCopySize> kBytes = MakeBytes();

constexpr uint64_t kLiteralFields = 0x7FBFDFEFF7FBFDFE;

// Squeezes seven fields of nine bits (from the top, flag first) to the bytes in them, on the low
// 56 bits: every second field moves by one bit, every second pair by two, the upper three by four.
inline uint64_t GatherLiterals(uint64_t bits) {
  uint64_t fields = bits >> 1;
  fields = (fields & 0x3FC00FF003FC00FF) | (fields & 0x001FE007F801FE00) >> 1;
  fields = (fields & 0x000FFFF00000FFFF) | (fields & 0x3FC00003FFFC0000) >> 2;
  return (fields & 0xFFFFFFFF) | (fields & 0x0FFFFFF000000000) >> 4;
}

inline void Copy16(unsigned char* to, const unsigned char* from) {
  unsigned char bytes[16];
  std::memcpy(bytes, from, sizeof bytes);
  std::memcpy(to, bytes, sizeof bytes);
}

// The groups of a length of 23 and more, from `position` on, as far as the source can be loaded.
// True if the last one was among them; `length` then is the whole, else what is known of it.
[[gnu::noinline]] bool ReadGroups(const unsigned char* base, uint64_t lastByte, uint64_t& position,
                                  uint64_t& length) {
  constexpr unsigned kAtOnce = (kLoadedBits - kGroupBits) / kGroupBits;
  constexpr uint64_t kEnough = uint64_t{1} << 31;  // no room is filled by more in one go
  while (position >> 3 <= lastByte && length < kEnough) {
    const uint64_t bits = LoadBig64(base + (position >> 3)) << (position & 7);
    const uint64_t zeros = ~bits | uint64_t{1} << (63 - kAtOnce * kGroupBits);
    const auto full = static_cast<unsigned>(__builtin_clzll(zeros)) / kGroupBits;
    length += uint64_t{full} * kFullGroup;
    position += full * kGroupBits;
    if (full == kAtOnce) continue;
    length += bits << (full * kGroupBits) >> (64 - kGroupBits);
    position += kGroupBits;
    return true;
  }
  return false;
}

struct Decoder {
  const unsigned char* base;
  uint64_t lastByte;  // from which a load is still in the source
  uint64_t position;  // of the next token, in bits from `base`
  unsigned char* out;

  bool IsInSource() const { return position >> 3 <= lastByte; }
  uint64_t Load() const { return LoadBig64(base + (position >> 3)) << (position & 7); }
};

// The token that `bits` begin with. False, with nothing done, if it is not a plain copy. Masks
// choose between literal and match, since compilers would make branches of conditions.
[[gnu::always_inline]] inline bool DecodeToken(const unsigned char* outBase, Decoder& decoder,
                                               uint64_t& bits) {
  const uint64_t ifMatch = 0 - (bits >> 63);
  const TokenEntry token = TokenOf(bits);
  const uint64_t offset = ((OffsetOf(bits) - 1) & ifMatch) + 1;
  const bool isCorrupt = IsCorruptOffset(offset, decoder.out - outBase);
  const bool isOverlapping = (offset < 16) & (token.length > offset);
  if (isCorrupt | isOverlapping | (token.length == 0)) return false;
  const auto literal = std::bit_cast<uintptr_t>(kBytes.data() + (bits >> 55 & 0xFF));
  const auto match = std::bit_cast<uintptr_t>(decoder.out - offset);
  const auto* from = std::bit_cast<const unsigned char*>(literal ^ ((literal ^ match) & ifMatch));
  Copy16(decoder.out, from);
  Copy16(decoder.out + 16, from + 16);
  decoder.out += token.length;
  decoder.position += token.bits;
  bits <<= token.bits;
  return true;
}

struct LongResult {
  Decoder decoder;
  bool goesOn;
};

// A match that is long or overlaps itself; it goes on unless source or room end, or it is corrupt.
[[gnu::noinline]] LongResult DecodeLong(DecodeState& state, Decoder decoder) {
  if (!decoder.IsInSource()) return {decoder, false};
  const uint64_t bits = decoder.Load();
  const auto offset = static_cast<uint32_t>(OffsetOf(bits));
  if (IsCorruptOffset(offset, decoder.out - state.outBase)) return {decoder, false};
  const TokenEntry token = TokenOf(bits);
  uint64_t length = token.length;
  bool isWhole = true;
  decoder.position += token.bits;
  if (length == 0) {
    length = kFirstGroupedLength;
    decoder.position += kLongOffsetBits - ShortShift(bits) + kMaxLengthBits;
    isWhole = ReadGroups(decoder.base, decoder.lastByte, decoder.position, length);
  }
  const auto count = static_cast<uint32_t>(
      std::min<uint64_t>(length, static_cast<uint64_t>(state.outEnd - decoder.out)));
  if (offset >= 16 && state.outEnd - decoder.out >= count + std::ptrdiff_t{16}) {
    for (uint32_t done = 0; done < count; done += 16)
      Copy16(decoder.out + done, decoder.out + done - offset);
  } else {
    CopyMatch(decoder.out, offset, count);
  }
  decoder.out += count;
  if (isWhole && count == length) return {decoder, true};
  state.matchOffset = offset;
  state.matchRest = static_cast<uint32_t>(length - count);
  if (!isWhole) state.status = DecodeStatus::Groups;
  return {decoder, false};
}

template <uint64_t (*kGather)(uint64_t)>
[[gnu::always_inline]] inline void Decode(DecodeState& state) {
  Decoder decoder{state.in, static_cast<uint64_t>(state.inEnd - state.in) - kLoadSize,
                  state.bitOffset, state.out};
  const unsigned char* const outBase = state.outBase;
  unsigned char* const lastOut = state.outEnd - kFastOutput;
  while (decoder.IsInSource() && decoder.out <= lastOut) {
    uint64_t bits = decoder.Load();
    if ((bits & kRunFlags) == 0) {
      const auto run = static_cast<unsigned>(__builtin_clzll((bits & kTokenFlags) | kRunEnd));
      StoreBig64(decoder.out, kGather(bits) << 8);
      decoder.out += run / kLiteralBits;
      decoder.position += run;
      continue;
    }
    const uint64_t start = decoder.position;
    if (DecodeToken(outBase, decoder, bits) && DecodeToken(outBase, decoder, bits) &&
        (decoder.position - start > kLoadedBits - kShortMatchBits ||
         DecodeToken(outBase, decoder, bits)))
      continue;
    const LongResult result = DecodeLong(state, decoder);
    decoder = result.decoder;
    if (!result.goesOn) break;
  }
  state.out = decoder.out;
  state.in = decoder.base + (decoder.position >> 3);
  state.bitOffset = decoder.position & 7;
}

#ifdef __x86_64__
// The same code for processors that shift by a register without the flags and extract bits at once.
[[gnu::target("bmi,bmi2")]] inline uint64_t ExtractLiterals(uint64_t bits) {
  return _pext_u64(bits, kLiteralFields);
}
[[gnu::target("bmi,bmi2")]] void DecodeBmi2(DecodeState& state) { Decode<ExtractLiterals>(state); }
#endif
std::atomic<bool> g_isPortable = false;

void DecodePortable(DecodeState& state) { Decode<GatherLiterals>(state); }

}  // namespace

void DecodeFast(DecodeState& state) {
#ifdef __x86_64__
  static const bool hasBmi2 = __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2");
  if (hasBmi2 && !g_isPortable.load(std::memory_order_relaxed)) return DecodeBmi2(state);
#endif
  DecodePortable(state);
}

void UsePortableDecoder(bool isPortable) { g_isPortable = isPortable; }

}  // namespace capsule::lzs
