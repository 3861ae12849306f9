// A round of the loop decodes from a window of 64 bits: either a run of literals, whose bytes are
// gathered and stored all at once, or three tokens. Which of the tokens comes is hard to predict,
// so those go without a branch: what a literal and a match have in common is that some bytes are
// copied from somewhere. For a literal that is a table of all bytes. 32 bytes are copied whatever
// the length is; what is stored too much is overwritten by the next copy.
//
// What the loop waits for is the way from the bits of a token to those of the next: one look-up in
// each of two tables at a fixed place of the window, the choice between them, a shift. So nothing
// else is on it: the 64 bits behind the window are loaded meanwhile, from a place that is known
// when the round begins, and move in at its end. Whether an offset leads before the first byte is
// asked only while fewer bytes are there than the largest offset; offset 0, the end marker and long
// lengths all fail the one comparison that finds a copy meeting what it writes.
#include "capsule/compression/decode_fast.h"

#include <algorithm>
#include <array>
#include <bit>

#include "capsule/compression/processor.h"
#include "capsule/compression/word_access.h"

#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace capsule::lzs {
namespace {

// A match whose length has at most one group; three of those are decoded from a window, or a run of
// literals. A window always holds 64 bits, those of the stream from the next token on.
constexpr unsigned kWindowBits = 64;
constexpr unsigned kShortMatchBits = kMaxHeaderBits + kGroupBits;
static_assert(kTokensAtOnce * kShortMatchBits < kWindowBits);
static_assert(kLiteralsAtOnce * kLiteralBits < kWindowBits);

// The first bits of tokens that are all literals: of three, which are worth a run, and of as many
// as a run may have.
constexpr uint64_t kRunFlags = 0x8040200000000000;
constexpr uint64_t kAllFlags = 0x8040201008040200;

// What a token says but for its offset or byte. One number, so that it can be chosen without a
// branch and several can be added up: `bits`, of the whole token with one group of the length if
// there is one; from bit 8 the length; from bit 16 the smallest offset that is no smaller than the
// length or than 16, so that copies of 16 bytes do not meet what they write. That is kNever for a
// length with more than one group, and nothing for a literal.
constexpr unsigned kLengthShift = 8;
constexpr unsigned kLeastShift = 16;
constexpr uint32_t kNever = 0xFFFF;
constexpr uint32_t MakeEntry(unsigned bits, uint32_t length, uint32_t least) {
  return bits | length << kLengthShift | least << kLeastShift;
}
constexpr uint32_t kLiteralEntry = MakeEntry(kLiteralBits, 1, 0);

// Matches by the eight bits behind the offset.
constexpr std::array<uint32_t, 256> MakeMatches(unsigned offsetBits) {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < table.size(); ++i) {
    const uint32_t code = i >> 4;
    const uint32_t group = i & 15;
    const unsigned bits = offsetBits + kLengthBits[code] + (code == kFullGroup ? kGroupBits : 0);
    const uint32_t length = kLengths[code] + (code == kFullGroup ? group : 0);
    const bool isLong = code == kFullGroup && group == kFullGroup;
    table[i] = MakeEntry(bits, length, isLong ? kNever : std::min<uint32_t>(length, 16));
  }
  return table;
}
static_assert(kMaxCopied == kFirstGroupedLength + kFullGroup - 1 && kMaxCopied <= kCopySize);

struct Tables {
  std::array<uint32_t, 256> shortMatches = MakeMatches(kShortOffsetBits);
  std::array<uint32_t, 256> longMatches = MakeMatches(kLongOffsetBits);
  // Every byte, where a copy of one finds it; and bytes to copy behind the last.
  std::array<unsigned char, 256 + kCopySize> bytes{};
};
constexpr Tables MakeTables() {
  Tables tables;
  for (unsigned i = 0; i < tables.bytes.size(); ++i)
    tables.bytes[i] = static_cast<unsigned char>(i);
  return tables;
}
constexpr Tables kTables = MakeTables();

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

// 64 bits from any bit on; of nine bytes.
inline uint64_t LoadBits(const unsigned char* base, uint64_t position) {
  const unsigned char* from = base + (position >> 3);
  const unsigned shift = position & 7;
  return LoadBig64(from) << shift | uint64_t{from[8]} >> (8 - shift);
}

// The groups of a length of 23 and more, from `position` on, as far as the source can be loaded.
// True if the last one was among them; `length` then is the whole, else what is known of it.
inline bool ReadGroups(const unsigned char* base, uint64_t lastByte, uint64_t& position,
                       uint64_t& length) {
  constexpr unsigned kAtOnce = kWindowBits / kGroupBits - 1;
  constexpr uint64_t kEnough = uint64_t{1} << 31;  // no room is filled by more in one go
  while (position >> 3 <= lastByte && length < kEnough) {
    const uint64_t bits = LoadBits(base, position);
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

struct Progress {
  uint64_t position;   // of the next token, in bits
  unsigned char* out;  // null: the loop ends
};

// A match that is long or overlaps itself, at `position`; the loop goes on unless source or room
// end, or the match is corrupt.
[[gnu::noinline]] Progress DecodeLong(DecodeState& state, uint64_t position, unsigned char* out) {
  const unsigned char* base = state.in;
  const uint64_t lastByte = static_cast<uint64_t>(state.inEnd - base) - kFastInput;
  state.out = out;
  if (position >> 3 > lastByte) return {position, nullptr};
  const uint64_t bits = LoadBits(base, position);
  const bool isShort = (bits >> 62 & 1) != 0;
  const auto offset =
      static_cast<uint32_t>(isShort ? bits >> 55 & kMaxShortOffset : bits >> 51 & kMaxOffset);
  if (IsCorruptOffset(offset, out - state.outBase)) return {position, nullptr};
  const uint32_t entry =
      isShort ? kTables.shortMatches[bits >> 47 & 0xFF] : kTables.longMatches[bits >> 43 & 0xFF];
  uint64_t length = entry >> kLengthShift & 0xFF;
  bool isWhole = true;
  position += entry & 0xFF;
  if (entry >> kLeastShift == kNever) {
    isWhole = ReadGroups(base, lastByte, position, length);
  }
  const auto room = static_cast<uint64_t>(state.outEnd - out);
  const auto count = static_cast<uint32_t>(std::min(length, room));
  if (offset >= 16 && room >= count + 16) {
    for (uint32_t done = 0; done < count; done += 16) Copy16(out + done, out + done - offset);
  } else {
    CopyMatch(out, offset, count);
  }
  out += count;
  if (isWhole && count == length) return {position, out};
  state.out = out;
  state.matchOffset = offset;
  state.matchRest = static_cast<uint32_t>(length - count);
  if (!isWhole) state.status = DecodeStatus::Groups;
  return {position, nullptr};
}

// A window of the stream: the bits from the next token on, and the entries of the tokens before it,
// added up, of which the lowest byte counts their bits.
struct Window {
  uint64_t bits;
  uint64_t entries;
};
static_assert(kTokensAtOnce * kMaxCopied < 256);

// Masks choose, since compilers would make branches of conditions.
struct PortableSteps {
  static uint64_t Gather(uint64_t bits) { return GatherLiterals(bits); }
  // The bits from kShift on; what lies above the lowest eleven is anything.
  template <unsigned kShift>
  static uint64_t Low(uint64_t bits) {
    return bits >> kShift;
  }
  // What the form of the offset decides: leaves the two of the short form, or takes those given.
  static void ChooseForm(uint64_t bits, uint64_t& entry, uint64_t& offset, uint64_t longEntry,
                         uint64_t longOffset) {
    const uint64_t ifLong = (bits >> 62 & 1) - 1;
    entry ^= (entry ^ longEntry) & ifLong;
    offset ^= (offset ^ longOffset) & ifLong;
  }
  // Leaves what a match has, or takes what a literal has.
  static void ChooseKind(uint64_t bits, uint64_t& entry, uintptr_t& from, uintptr_t byte) {
    const uint64_t ifLiteral = (bits >> 63) - 1;
    entry ^= (entry ^ kLiteralEntry) & ifLiteral;
    from ^= (from ^ byte) & ifLiteral;
  }
};

inline bool HasHistory(const DecodeState& state) { return state.out - state.outBase >= kMaxOffset; }

// The token that the window begins with. False, with nothing done, if it is not a plain copy.
// With kHasHistory no offset leads further back than what is there.
template <typename Steps, bool kHasHistory>
[[gnu::always_inline]] inline bool DecodeToken(const unsigned char* outBase, unsigned char*& out,
                                               Window& window) {
  const uint64_t bits = window.bits;
  // A literal's byte; or behind a one, which says that the form is short, the offset.
  const uint64_t field = Steps::template Low<55>(bits) & 0xFF;
  uint64_t entry = kTables.shortMatches[Steps::template Low<47>(bits) & 0xFF];
  uint64_t offset = field - (kMaxShortOffset + 1);
  Steps::ChooseForm(bits, entry, offset, kTables.longMatches[Steps::template Low<43>(bits) & 0xFF],
                    Steps::template Low<51>(bits) & kMaxOffset);
  if (!kHasHistory && (bits >> 63 != 0) & IsCorruptOffset(offset, out - outBase)) return false;
  auto from = std::bit_cast<uintptr_t>(out - offset);
  Steps::ChooseKind(bits, entry, from, std::bit_cast<uintptr_t>(kTables.bytes.data() + field));
  if (offset < entry >> kLeastShift) return false;
  const auto* source = std::bit_cast<const unsigned char*>(from);
  Copy16(out, source);
  Copy16(out + 16, source + 16);
  out += entry >> kLengthShift & 0xFF;
  window.bits = bits << (entry & 63);
  window.entries += entry;
  return true;
}

// One stream of the loop, in local variables.
template <typename Steps, bool kHasHistory>
class Lane {
 public:
  [[gnu::always_inline]] explicit Lane(const DecodeState& state)
      : m_base(state.in),
        m_lastByte(static_cast<uint64_t>(state.inEnd - m_base) - kFastInput),
        m_outBase(state.outBase),
        m_lastOut(state.outEnd - kFastOutput),
        m_position(state.bitOffset),
        m_out(state.out),
        m_bits(LoadBits(m_base, m_position)) {
    if (!kHasHistory && !HasHistory(state)) m_lastOut = std::min(m_lastOut, m_outBase + kMaxOffset);
  }

  [[gnu::always_inline]] bool GoesOn() const {
    return (m_position >> 3 <= m_lastByte) & (m_out <= m_lastOut);
  }

  // False if the loop ends here.
  [[gnu::always_inline]] bool Round(DecodeState& state) {
    Window window{m_bits, 0};
    uint64_t used;
    if ((window.bits & kRunFlags) == 0) {
      StoreBig64(m_out, Steps::Gather(window.bits) << 8);
      if ((window.bits & kAllFlags) == 0) {
        m_out += kLiteralsAtOnce;
        used = kLiteralsAtOnce * kLiteralBits;
      } else {
        used = static_cast<unsigned>(__builtin_clzll(window.bits & kAllFlags));
        m_out += used / kLiteralBits;
      }
      window.bits <<= used;
    } else if (DecodeToken<Steps, kHasHistory>(m_outBase, m_out, window) &&
               DecodeToken<Steps, kHasHistory>(m_outBase, m_out, window) &&
               DecodeToken<Steps, kHasHistory>(m_outBase, m_out, window)) {
      used = window.entries & 0xFF;
    } else {
      const Progress after = DecodeLong(state, m_position + (window.entries & 0xFF), m_out);
      m_position = after.position;
      if (after.out == nullptr) {
        m_out = state.out;
        return false;
      }
      m_out = after.out;
      m_bits = LoadBits(m_base, std::min(m_position, m_lastByte * 8 + 7));
      return true;
    }
    const uint64_t next = LoadBits(m_base, m_position + kWindowBits);
    m_position += used;
    m_bits = window.bits | next >> 1 >> (used ^ 63);
    return true;
  }

  [[gnu::always_inline]] void Leave(DecodeState& state) const {
    state.out = m_out;
    state.in = m_base + (m_position >> 3);
    state.bitOffset = m_position & 7;
  }

 private:
  const unsigned char* m_base;
  uint64_t m_lastByte;
  const unsigned char* m_outBase;
  const unsigned char* m_lastOut;
  uint64_t m_position;
  unsigned char* m_out;
  uint64_t m_bits;
};

template <typename Steps, bool kHasHistory>
[[gnu::always_inline]] inline void Decode(DecodeState& state) {
  Lane<Steps, kHasHistory> lane(state);
  while (lane.GoesOn() && lane.Round(state)) {
  }
  lane.Leave(state);
}

// A round of one, then a round of the other: while one waits, the processor goes on with the other.
template <typename Steps, bool kHaveHistory>
[[gnu::always_inline]] inline Stopped DecodePair(DecodeState& a, DecodeState& b) {
  Lane<Steps, kHaveHistory> first(a);
  Lane<Steps, kHaveHistory> second(b);
  Stopped stopped{false, false};
  while (first.GoesOn() && second.GoesOn()) {
    stopped.a = !first.Round(a);
    if (stopped.a) break;
    stopped.b = !second.Round(b);
    if (stopped.b) break;
  }
  first.Leave(a);
  second.Leave(b);
  return {stopped.a || !first.GoesOn(), stopped.b || !second.GoesOn()};
}

// Without a whole history the loop ends when there is one, and is entered anew.
template <typename Steps>
[[gnu::always_inline]] inline void DecodeWith(DecodeState& state) {
  if (HasHistory(state)) return Decode<Steps, true>(state);
  Decode<Steps, false>(state);
}

template <typename Steps>
[[gnu::always_inline]] inline Stopped DecodePairWith(DecodeState& a, DecodeState& b) {
  if (HasHistory(a) && HasHistory(b)) return DecodePair<Steps, true>(a, b);
  return DecodePair<Steps, false>(a, b);
}

#ifdef __x86_64__
// For processors that shift by a register without the flags and extract bits at once; here the
// choice is a conditional move.
struct Bmi2Steps {
  [[gnu::target("bmi,bmi2")]] static uint64_t Gather(uint64_t bits) {
    return _pext_u64(bits, kLiteralFields);
  }
  template <unsigned kShift>
  static uint64_t Low(uint64_t bits) {
    uint64_t low;
    asm("rorx %[shift], %[bits], %[low]" : [low] "=r"(low) : [bits] "r"(bits), [shift] "i"(kShift));
    return low;
  }
  static void ChooseForm(uint64_t bits, uint64_t& entry, uint64_t& offset, uint64_t longEntry,
                         uint64_t longOffset) {
    asm("bt $62, %[bits]\n\tcmovnc %[longEntry], %[entry]\n\tcmovnc %[longOffset], %[offset]"
        : [entry] "+&r"(entry), [offset] "+&r"(offset)
        : [bits] "r"(bits), [longEntry] "r"(longEntry), [longOffset] "r"(longOffset)
        : "cc");
  }
  static void ChooseKind(uint64_t bits, uint64_t& entry, uintptr_t& from, uintptr_t byte) {
    asm("test %[bits], %[bits]\n\tcmovns %[literal], %[entry]\n\tcmovns %[byte], %[from]"
        : [entry] "+&r"(entry), [from] "+&r"(from)
        : [bits] "r"(bits), [literal] "r"(uint64_t{kLiteralEntry}), [byte] "r"(byte)
        : "cc");
  }
};
[[gnu::target("bmi,bmi2")]] void DecodeBmi2(DecodeState& state) { DecodeWith<Bmi2Steps>(state); }
[[gnu::target("bmi,bmi2")]] Stopped DecodePairBmi2(DecodeState& a, DecodeState& b) {
  return DecodePairWith<Bmi2Steps>(a, b);
}
#endif
void DecodePortable(DecodeState& state) { DecodeWith<PortableSteps>(state); }
Stopped DecodePairPortable(DecodeState& a, DecodeState& b) {
  return DecodePairWith<PortableSteps>(a, b);
}

}  // namespace

void DecodeFast(DecodeState& state) {
#ifdef __x86_64__
  if (HasBmi2()) return DecodeBmi2(state);
#endif
  DecodePortable(state);
}

Stopped DecodeFastPair(DecodeState& a, DecodeState& b) {
#ifdef __x86_64__
  if (HasBmi2()) return DecodePairBmi2(a, b);
#endif
  return DecodePairPortable(a, b);
}

}  // namespace capsule::lzs
