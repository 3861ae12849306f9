#include "capsule/compression/compress_fast.h"

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

// The rest of a length behind its first 1111, or false if the destination might not have room.
bool WriteGroups(BitWriter& writer, uint32_t rest, const unsigned char* outLimit) {
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

bool WriteMatch(BitWriter& writer, Match match, const unsigned char* outLimit) {
  const BitWriter before = writer;
  const Code header = MatchHeader(match.offset, match.length);
  writer.Add(header.value, header.bits);
  writer.Flush();
  if (match.length < kFirstGroupedLength) return true;
  if (WriteGroups(writer, match.length - kFirstGroupedLength, outLimit)) return true;
  writer = before;
  return false;
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

template <IndexMode kMode>
void Run(CompressionArea& area, FastCompression& run, uint32_t effort) {
  const SearchWindow window = run.window;
  BitWriter writer{run.out, run.bitCount == 0 ? 0 : uint64_t{run.bits} << (64 - run.bitCount),
                   run.bitCount};
  writer.Flush();
  uint32_t next = run.next;
  uint32_t position = run.position;
  const unsigned char* lastOut = run.outLimit - kFastRoom;
  while (next < run.stop && writer.out <= lastOut) {
    const Match match = FindMatch(area, window, next, position, effort);
    if (match.length == 0) {
      writer.Add(window.source[next], kLiteralBits);
      writer.Flush();
      ++next;
      ++position;
      continue;
    }
    position = EnterMatch<kMode>(area, window, next, position, match);
    next += match.length;
    if (!WriteMatch(writer, match, run.outLimit)) {
      run.unwritten = match;
      break;
    }
  }
  ReturnToWord(run, writer, run.out);
  run.next = next;
  run.position = position;
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
