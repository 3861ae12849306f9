// Hashes are computed for a block of positions at once. Each block is then searched by the loop
// that suits it: one that knows only the nearest candidate, one with all candidates, or one that
// first asks a filter whether a pair of bytes can be in reach at all, behind a block that did not
// shrink. Each loop keeps its writer in a local copy, so that the compiler can hold it in
// registers.
#include "capsule/compression/compress_fast.h"

#include <algorithm>

#include "capsule/compression/bit_writer.h"
#include "capsule/compression/hash_block.h"
#include "capsule/compression/lzs.h"
#include "capsule/compression/pair_filter.h"
#include "capsule/compression/processor.h"

namespace capsule::lzs {
namespace {

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

constexpr uint32_t kCompared = 8;  // bytes compared at once

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

// The ways to search and to enter what a match covers.
template <IndexMode kMode>
struct ChainSearch {
  CompressionArea& area;
  const SearchWindow window;
  const HashBlock& hashes;
  const uint32_t effort;

  // Enters the cursor's position; how far back the nearest candidate is.
  uint32_t EnterCursor(uint32_t next, uint32_t position) const {
    return EnterPosition(area, position, hashes.Inside(next));
  }
  Match Find(uint32_t next, uint32_t position, uint32_t nearest) const {
    return FindInChain(area, window, next, position, nearest, effort);
  }
  uint32_t Enter(uint32_t next, uint32_t position, Match match) const {
    return EnterMatch<kMode>(area, window, hashes, next, position, match);
  }
};

struct TripleSearch {
  CompressionArea& area;
  const SearchWindow window;
  const HashBlock& hashes;
  const uint32_t effort;
  TripleIndex& index;

  uint32_t EnterCursor(uint32_t next, uint32_t position) const {
    const uint32_t head = LoadLittle32(window.source + next);
    return index.Enter(area, position, hashes.Inside(next), head);
  }
  Match Find(uint32_t next, uint32_t position, uint32_t nearest) const {
    return FindByTriples(area, index, window, next, position, nearest, effort);
  }
  uint32_t Enter(uint32_t next, uint32_t position, Match match) const {
    return EnterWithTriples(area, index, window, hashes, next, position, match);
  }
};

// Enters and writes a match; false if it is handed back unwritten, for want of room.
template <typename Search>
[[gnu::always_inline]] inline bool TakeMatch(const Search& search, FastCompression& run,
                                             BitWriter& writer, uint32_t& next, uint32_t& position,
                                             Match match) {
  position = search.Enter(next, position, match);
  next += match.length;
  if (WriteMatch(writer, match.offset, match.length, run.outLimit)) return true;
  run.unwritten = match;
  return false;
}

// Without further candidates, and without entries for what matches cover: short tokens are worked
// out without a branch, since which one comes cannot be predicted. Behind some literals another one
// can, so that then it is: the search need not wait for the length of each token. Goes on to
// `stop`, which lies kCompared bytes before the end of what may be compared; false if it stopped
// for want of room.
bool RunNearest(const ChainSearch<IndexMode::None>& search, FastCompression& run, BitWriter& shared,
                uint32_t stop) {
  const SearchWindow window = search.window;
  BitWriter writer = shared;
  const unsigned char* lastOut = run.outLimit - kFastRoom;
  uint32_t next = run.next;
  uint32_t position = run.position;
  uint32_t literals = 0;  // in a row
  bool goesOn = true;
  while (goesOn && next < stop && (goesOn = writer.out <= lastOut)) {
    const Nearest found =
        EnterAndCompare(search.area, window, search.hashes.Inside(next), next, position);
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
    literals = 0;
    goesOn = TakeMatch(search, run, writer, next, position, match);
  }
  shared = writer;
  run.next = next;
  run.position = position;
  return goesOn;
}

// With any effort and index, up to `stop`; false if it stopped for want of room.
template <typename Search>
bool RunSearch(const Search& search, FastCompression& run, BitWriter& shared, uint32_t stop) {
  const unsigned char* source = search.window.source;
  BitWriter writer = shared;
  const unsigned char* lastOut = run.outLimit - kFastRoom;
  uint32_t next = run.next;
  uint32_t position = run.position;
  bool goesOn = true;
  while (goesOn && next < stop && (goesOn = writer.out <= lastOut)) {
    const Match match = search.Find(next, position, search.EnterCursor(next, position));
    if (match.length == 0) {
      writer.Add(source[next], kLiteralBits);
      writer.Flush();
      ++next;
      ++position;
    } else {
      goesOn = TakeMatch(search, run, writer, next, position, match);
    }
  }
  shared = writer;
  run.next = next;
  run.position = position;
  return goesOn;
}

// Adds what a match covers behind its first byte.
void AddCovered(PairFilter& filter, const SearchWindow& window, uint32_t next, Match match) {
  const uint32_t end = std::min(next + match.length, window.size - kSearchTail);
  for (uint32_t i = std::max(next + 1, end - std::min(end, kMaxOffset)); i < end; ++i)
    filter.Add(LoadLittle32(window.source + i));
}

// As RunSearch, for data with few matches.
template <typename Search>
bool RunSparse(const Search& search, FastCompression& run, BitWriter& shared, uint32_t stop,
               PairFilter& filter) {
  const unsigned char* source = search.window.source;
  BitWriter writer = shared;
  const unsigned char* lastOut = run.outLimit - kFastRoom;
  uint32_t next = run.next;
  uint32_t position = run.position;
  bool goesOn = true;
  while (goesOn && next < stop && (goesOn = writer.out <= lastOut)) {
    const uint32_t nearest = search.EnterCursor(next, position);
    const uint32_t here = LoadLittle32(source + next);
    Match match{};
    if (filter.Add(here)) match = search.Find(next, position, nearest);
    if (match.length == 0) {
      writer.Add(here & 0xFF, kLiteralBits);
      writer.Flush();
      ++next;
      ++position;
    } else {
      AddCovered(filter, search.window, next, match);
      goesOn = TakeMatch(search, run, writer, next, position, match);
    }
  }
  shared = writer;
  run.next = next;
  run.position = position;
  return goesOn;
}

// Searches blocks, in the way that suits what has been found in the one before.
class BlockRunner {
 public:
  explicit BlockRunner(uint32_t history) : m_history(history) {}

  // How far to search to learn about the data.
  uint32_t BlockSize() const { return m_isKnown ? HashBlock::kSize : kTrial; }
  template <typename Search>
  bool Run(const Search& search, FastCompression& run, BitWriter& writer, uint32_t stop) {
    const uint32_t first = run.next;
    const unsigned char* out = writer.out;
    const bool goesOn = m_isSparse ? RunSparse(search, run, writer, stop, m_filter)
                                   : RunSearch(search, run, writer, stop);
    // Behind the end of the search there need not be a pair.
    if (run.next < run.stop)
      Learn(search.window, run.next, run.next - first, static_cast<uint32_t>(writer.out - out));
    return goesOn;
  }

 private:
  static constexpr uint32_t kTrial = 128;

  // Literals alone take more room than they are.
  void Learn(const SearchWindow& window, uint32_t next, uint32_t plain, uint32_t coded) {
    m_isKnown = true;
    const bool wasSparse = std::exchange(m_isSparse, coded > plain);
    if (!m_isSparse) return;
    if (wasSparse)
      m_filter.Forget();
    else
      m_filter.Start(window.behind + next, std::min(m_history + next, kMaxOffset));
  }

  const uint32_t m_history;
  bool m_isKnown = false;
  bool m_isSparse = false;
  PairFilter m_filter;
};

// Block by block, as far as the inner loop can go.
template <IndexMode kMode>
void RunBlocks(CompressionArea& area, FastCompression& run, BitWriter& writer, uint32_t effort) {
  const SearchWindow window = run.window;
  const uint32_t comparable = window.copied > kCompared ? window.copied - kCompared : 0;
  HashBlock hashes;
  BlockRunner runner(run.history);
  bool goesOn = true;
  while (goesOn && run.next < run.stop) {
    const uint32_t end = run.next + std::min(runner.BlockSize(), run.stop - run.next);
    hashes.Fill(window.source, run.next, end);
    const ChainSearch<kMode> chains{area, window, hashes, effort};
    if constexpr (kMode == IndexMode::None)
      if (effort == 0) goesOn = RunNearest(chains, run, writer, std::min(end, comparable));
    if (kMode == IndexMode::Bodies && run.triples != nullptr)
      goesOn =
          runner.Run(TripleSearch{area, window, hashes, effort, *run.triples}, run, writer, end);
    else if (goesOn)
      goesOn = runner.Run(chains, run, writer, end);
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

void RunMode(CompressionArea& area, FastCompression& run, uint16_t flags, uint32_t effort) {
  if ((flags & LzsIndexMatchBodies) != 0)
    Run<IndexMode::Bodies>(area, run, effort);
  else if ((flags & LzsIndexMatchEnds) != 0)
    Run<IndexMode::Ends>(area, run, effort);
  else
    Run<IndexMode::None>(area, run, effort);
}

#ifdef __x86_64__
// The same code once more, all of it within this function.
[[gnu::target("bmi,bmi2"), gnu::flatten]] void RunBmi2(CompressionArea& area, FastCompression& run,
                                                       uint16_t flags, uint32_t effort) {
  RunMode(area, run, flags, effort);
}
#endif

}  // namespace

void CompressFast(CompressionArea& area, FastCompression& run, uint16_t flags, uint32_t effort) {
#ifdef __x86_64__
  if (HasBmi2()) return RunBmi2(area, run, flags, effort);
#endif
  RunMode(area, run, flags, effort);
}

}  // namespace capsule::lzs
