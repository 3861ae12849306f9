#include "capsule/compression/compress_fast.h"

#include <algorithm>
#include <array>

#include "capsule/compression/lzs.h"

namespace capsule::lzs {
namespace {

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
constexpr uint32_t kFirstLong = kFirstGroupedLength + kFullGroup;
constexpr std::array<Code, kFirstLong + 1> MakeLengthCodes() {
  std::array<Code, kFirstLong + 1> codes{};
  for (uint32_t length = kMinMatch; length < kFirstGroupedLength; ++length)
    codes[length] = LengthCode(length);
  for (uint32_t length = kFirstGroupedLength; length <= kFirstLong; ++length)
    codes[length] = {kFullGroup << kGroupBits | (length - kFirstGroupedLength),
                     kMaxLengthBits + kGroupBits};
  return codes;
}
constexpr std::array<Code, kFirstLong + 1> kLengthCodes = MakeLengthCodes();

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
[[gnu::noinline]] bool WriteGroups(BitWriter& writer, uint32_t rest,
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
[[gnu::always_inline]] inline bool WriteMatch(BitWriter& writer, Match match,
                                              const unsigned char* outLimit) {
  BitWriter after = writer;
  const Code code = ShortMatchCode(match.offset, std::min(match.length, kFirstLong));
  after.Add(code.value, code.bits);
  after.Flush();
  if (match.length >= kFirstLong) {
    BitWriter groups = after;
    if (!WriteGroups(groups, match.length - kFirstLong, outLimit)) return false;
    after = groups;
  }
  writer = after;
  return true;
}

// Gives the bytes of an unfinished word back to the bits held.
void ReturnToWord(FastCompression& run, const BitWriter& writer, const unsigned char* wordStart) {
  const auto extra = static_cast<unsigned>(writer.out - wordStart) & 3;
  run.out = writer.out - extra;
  uint64_t bits = 0;
  for (unsigned i = 0; i < extra; ++i) bits = bits << 8 | run.out[i];
  if (writer.count != 0) bits = bits << writer.count | writer.bits >> (64 - writer.count);
  run.bits = static_cast<uint32_t>(bits);
  run.bitCount = extra * 8 + writer.count;
}

// Hashes of a block of positions, worked out ahead: there the division is one multiplication, for
// several positions at once.
class HashBlock {
 public:
  static constexpr uint32_t kSize = 1024;

  // For source bytes `first` to `end`, each with a byte behind it.
  void Fill(const unsigned char* source, uint32_t first, uint32_t end) {
    constexpr uint32_t kReciprocal = (uint32_t{1} << 26) / kHashSize;
    const unsigned char* from = source + first;
    const uint32_t count = end - first;
    for (uint32_t i = 0; i < count; ++i) {
      const auto pair = static_cast<uint16_t>(from[i] << 8 | from[i + 1]);
      const auto high = static_cast<uint16_t>(uint32_t{pair} * kReciprocal >> 16);
      // The quotient of a multiple comes out one too small, so its rest is the divisor.
      const auto rest = static_cast<uint16_t>(pair - (high >> 10) * kHashSize);
      m_hashes[i] = rest == kHashSize ? uint16_t{0} : rest;
    }
    m_source = source;
    m_first = first;
    m_count = count;
  }
  // Of a source byte of the block.
  uint32_t Inside(uint32_t index) const { return m_hashes[index - m_first]; }
  // Of one that may also lie behind it.
  uint32_t At(uint32_t index) const {
    return index - m_first < m_count ? Inside(index) : HashOf(m_source + index);
  }

 private:
  uint16_t m_hashes[kSize];
  const unsigned char* m_source = nullptr;
  uint32_t m_first = 0;
  uint32_t m_count = 0;
};

constexpr uint32_t kCompared = 8;  // bytes compared at once

// Writes a token whose match, if it is one, is shorter than kCompared.
inline void WriteShort(BitWriter& writer, uint32_t literal, uint32_t offset, uint32_t equal) {
  const uint32_t ifMatch = 0 - static_cast<uint32_t>(equal >= kMinMatch);
  const Code match = ShortMatchCode(offset, equal);
  writer.Add(literal ^ ((literal ^ match.value) & ifMatch),
             kLiteralBits + ((match.bits - kLiteralBits) & ifMatch));
  writer.Flush();
}

// Literals in a row behind which another one is expected.
constexpr uint32_t kExpectLiteral = 5;

// The nearest candidate of a position, entered on the way.
struct Nearest {
  uint64_t here;        // the bytes at the position
  uint64_t difference;  // to those of the candidate; not 0 in the first byte if it is out of reach
  uint32_t offset;
};

inline Nearest EnterAndCompare(CompressionArea& area, const SearchWindow& window, uint32_t hash,
                               uint32_t next, uint32_t position) {
  const uint32_t distance = position - area.heads[hash];
  area.heads[hash] = position;
  const uint32_t ifFar = 0 - static_cast<uint32_t>(distance > kMaxOffset);
  area.chain[position % kChainSize] = static_cast<uint16_t>(distance | ifFar);
  const uint32_t offset = distance & ~ifFar;
  const uint64_t here = LoadLittle64(window.source + next);
  const uint64_t there = LoadLittle64(window.behind + next - offset);
  return {here, (there ^ here) | (ifFar & 0xFF), offset};
}

// Without further candidates, and without entries for what matches cover: short tokens are worked
// out without a branch, since which one comes cannot be predicted. Behind some literals another one
// can, so that then it is: the search need not wait for the length of each token. Goes on to
// `stop`, which lies kCompared bytes before the end of what may be compared; false if it stopped
// for want of room.
bool RunNearest(CompressionArea& area, FastCompression& run, BitWriter& shared,
                const HashBlock& hashes, uint32_t stop) {
  const SearchWindow window = run.window;
  BitWriter writer = shared;
  const unsigned char* lastOut = run.outLimit - kFastRoom;
  uint32_t next = run.next;
  uint32_t position = run.position;
  uint32_t literals = 0;  // in a row
  bool goesOn = true;
  while (next < stop && (goesOn = writer.out <= lastOut)) {
    const Nearest found = EnterAndCompare(area, window, hashes.Inside(next), next, position);
    if (literals >= kExpectLiteral && (found.difference & kTwoBytes) != 0) {
      writer.Add(static_cast<uint32_t>(found.here & 0xFF), kLiteralBits);
      writer.Flush();
      ++next;
      ++position;
      continue;
    }
    if (found.difference != 0) {
      const auto equal = static_cast<uint32_t>(__builtin_ctzll(found.difference)) >> 3;
      WriteShort(writer, static_cast<uint32_t>(found.here & 0xFF), found.offset, equal);
      const uint32_t covered = equal + static_cast<uint32_t>(equal == 0);
      literals = equal < kMinMatch ? literals + 1 : 0;
      next += covered;
      position += covered;
      continue;
    }
    const uint32_t limit = MatchLimit(window.size - next);
    const Match match{MeasureMatch(window, next, found.offset, limit), found.offset};
    position = EnterMatch<IndexMode::None>(area, window, hashes, next, position, match);
    next += match.length;
    literals = 0;
    if (WriteMatch(writer, match, run.outLimit)) continue;
    run.unwritten = match;
    goesOn = false;
    break;
  }
  shared = writer;
  run.next = next;
  run.position = position;
  return goesOn;
}

// With any effort and index, up to `stop`; false if it stopped for want of room.
template <IndexMode kMode>
bool RunSearch(CompressionArea& area, FastCompression& run, BitWriter& shared,
               const HashBlock& hashes, uint32_t stop, uint32_t effort) {
  const SearchWindow window = run.window;
  BitWriter writer = shared;
  const unsigned char* lastOut = run.outLimit - kFastRoom;
  uint32_t next = run.next;
  uint32_t position = run.position;
  bool goesOn = true;
  while (next < stop && (goesOn = writer.out <= lastOut)) {
    const Match match = FindMatch(area, window, hashes, next, position, effort);
    if (match.length == 0) {
      writer.Add(window.source[next], kLiteralBits);
      writer.Flush();
      ++next;
      ++position;
      continue;
    }
    position = EnterMatch<kMode>(area, window, hashes, next, position, match);
    next += match.length;
    if (WriteMatch(writer, match, run.outLimit)) continue;
    run.unwritten = match;
    goesOn = false;
    break;
  }
  shared = writer;
  run.next = next;
  run.position = position;
  return goesOn;
}

// The same by both indexes.
bool RunTriples(CompressionArea& area, FastCompression& run, BitWriter& shared,
                const HashBlock& hashes, uint32_t stop, uint32_t effort) {
  const SearchWindow window = run.window;
  TripleIndex& index = *run.triples;
  BitWriter writer = shared;
  const unsigned char* lastOut = run.outLimit - kFastRoom;
  uint32_t next = run.next;
  uint32_t position = run.position;
  bool goesOn = true;
  while (next < stop && (goesOn = writer.out <= lastOut)) {
    const Match match =
        FindByTriples(area, index, window, hashes.Inside(next), next, position, effort);
    if (match.length == 0) {
      writer.Add(window.source[next], kLiteralBits);
      writer.Flush();
      ++next;
      ++position;
      continue;
    }
    position = EnterWithTriples(area, index, window, hashes, next, position, match);
    next += match.length;
    if (WriteMatch(writer, match, run.outLimit)) continue;
    run.unwritten = match;
    goesOn = false;
    break;
  }
  shared = writer;
  run.next = next;
  run.position = position;
  return goesOn;
}

// Block by block, as far as the inner loop can go.
template <IndexMode kMode>
void RunBlocks(CompressionArea& area, FastCompression& run, BitWriter& writer, uint32_t effort) {
  const SearchWindow window = run.window;
  const uint32_t comparable = window.copied > kCompared ? window.copied - kCompared : 0;
  HashBlock hashes;
  bool goesOn = true;
  while (goesOn && run.next < run.stop) {
    const uint32_t end = run.next + std::min(HashBlock::kSize, run.stop - run.next);
    hashes.Fill(window.source, run.next, end);
    if (kMode == IndexMode::None && effort == 0)
      goesOn = RunNearest(area, run, writer, hashes, std::min(end, comparable));
    if (kMode == IndexMode::Bodies && run.triples != nullptr)
      goesOn = RunTriples(area, run, writer, hashes, end, effort);
    else if (goesOn)
      goesOn = RunSearch<kMode>(area, run, writer, hashes, end, effort);
  }
}

template <IndexMode kMode>
void Run(CompressionArea& area, FastCompression& run, uint32_t effort) {
  BitWriter writer{run.out, run.bitCount == 0 ? 0 : uint64_t{run.bits} << (64 - run.bitCount),
                   run.bitCount};
  writer.Flush();
  unsigned char* const wordStart = run.out;
  RunBlocks<kMode>(area, run, writer, effort);
  ReturnToWord(run, writer, wordStart);
}

}  // namespace

void CompressFast(CompressionArea& area, FastCompression& run, uint16_t flags, uint32_t effort) {
  if ((flags & LzsIndexMatchBodies) != 0)
    Run<IndexMode::Bodies>(area, run, effort);
  else if ((flags & LzsIndexMatchEnds) != 0)
    Run<IndexMode::Ends>(area, run, effort);
  else
    Run<IndexMode::None>(area, run, effort);
}

}  // namespace capsule::lzs
