// The search for matches: the index of two-byte hashes, and the three phases of a search.
//
// Every byte has a position. `heads` holds the latest position of each hash, `chain` leads from a
// position to the previous one with the same hash. A candidate is usable if it is at most 2047
// bytes back. Positions that no longer are stay in the tables: the distance tells.
//
// Which of several candidates is taken, and when a search gives up, decides the bits of the output
// and is fixed: `effort` counts the further candidates of each phase.
//   1. The nearest candidate that has the first two bytes.
//   2. From there the nearest that has the first three; without one, length 2.
//   3. From there the longest, the nearest among equals. Each candidate costs one unit of effort,
//      one that has the first four bytes a second one; with 57 bytes the search is content.
// Collisions of hashes are real, so every comparison begins at the first byte. triple_search.h
// finds the same in another way.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "capsule/compression/compression_area.h"
#include "capsule/compression/word_access.h"

namespace capsule::lzs {

inline constexpr uint32_t kSearchTail = 4;       // last bytes of a call's source: never searched
inline constexpr uint32_t kFirstMeasured = 5;    // bytes compared one by one; pairs follow
inline constexpr uint32_t kContentLength = 57;   // no further candidate after a match this long
inline constexpr uint32_t kOutOfReach = 0xFFFF;  // in a chain
inline constexpr int kNotEntered = 0;            // in a chain, where CompressionState says so
inline constexpr uint32_t kLongJump = 8192;      // matches from here on move positions on by less

// The source of a call, and where to look for what lies behind the cursor. While the bytes before
// the source are needed, that is the input buffer with its copy of the first source bytes, later
// the source itself.
struct SearchWindow {
  const unsigned char* source;
  const unsigned char* behind;  // behind[i] is source[i] up to `copied`; 2047 bytes before it too
  uint32_t copied;              // source bytes that `behind` has
  uint32_t size;                // of the source
};

struct Match {
  uint32_t length;  // 0: none
  uint32_t offset;
};

inline uint32_t HashOf(const unsigned char* p) {
  return (static_cast<uint32_t>(p[0]) << 8 | p[1]) % kHashSize;
}

// Hashes as they are needed. What works them out ahead has the same operation.
struct PlainHashes {
  const unsigned char* source;
  uint32_t At(uint32_t index) const { return HashOf(source + index); }
};

// Enters `position`; how far back the previous one of that hash is.
inline uint32_t EnterPosition(CompressionArea& area, uint32_t position, uint32_t hash) {
  const uint32_t distance = position - area.heads[hash];
  area.heads[hash] = position;
  area.chain[position % kChainSize] = static_cast<uint16_t>(std::min(distance, kOutOfReach));
  return distance;
}

// How far a match at the cursor may reach with `remaining` source bytes: after the first five it
// grows by pairs that lie wholly in the source, so an odd last byte stays out.
inline uint32_t MatchLimit(uint32_t remaining) {
  return kFirstMeasured + ((remaining - kFirstMeasured) & ~uint32_t{1});
}

// Equal bytes at `a` and `b` (b in front of a), from `length` on, at most `limit`.
inline uint32_t EqualBytes(const unsigned char* a, const unsigned char* b, uint32_t length,
                           uint32_t limit) {
  while (limit - length >= 8) {
    const uint64_t difference = LoadLittle64(a + length) ^ LoadLittle64(b + length);
    if (difference != 0) return length + (static_cast<uint32_t>(__builtin_ctzll(difference)) >> 3);
    length += 8;
  }
  while (length < limit && a[length] == b[length]) ++length;
  return length;
}

// Length of the match `distance` back from source byte `at`; its first four bytes are equal.
inline uint32_t MeasureMatch(const SearchWindow& window, uint32_t at, uint32_t distance,
                             uint32_t limit) {
  const unsigned char* cursor = window.source + at;
  const uint32_t inWindow = std::min(limit, window.copied - at);
  uint32_t length = EqualBytes(cursor, window.behind + at - distance, 4, inWindow);
  // Behind the copy both sides lie in the source, since the copy is longer than any distance.
  if (length == inWindow && length < limit)
    length = EqualBytes(cursor, cursor - distance, length, limit);
  return length;
}

// One step of a chain from `distance` back; false if it leads out of reach.
inline bool Further(const CompressionArea& area, uint32_t position, uint32_t& distance) {
  distance += area.chain[(position - distance) % kChainSize];
  return distance <= kMaxOffset;
}

inline constexpr uint32_t kTwoBytes = 0xFFFF;
inline constexpr uint32_t kThreeBytes = 0xFFFFFF;

// Phase 3, from the candidate `distance` back, which has the first three bytes. A candidate that
// differs in one of the four bytes up to the one behind the best match so far cannot be longer and
// is not measured; when nothing can be longer than the best, the search ends before its effort
// does.
inline Match FindLongest(const CompressionArea& area, const SearchWindow& window, uint32_t at,
                         uint32_t position, uint32_t distance, uint32_t effort) {
  const unsigned char* cursor = window.source + at;
  const uint32_t limit = MatchLimit(window.size - at);
  const uint32_t inWindow = std::min(limit, window.copied - at);
  const uint32_t head = LoadLittle32(cursor);
  uint32_t tail = head;
  Match best{3, distance};
  int left = static_cast<int>(effort);
  do {
    const unsigned char* candidate = window.behind + at - distance;
    uint32_t difference = LoadLittle32(candidate) ^ head;
    left -= 1 + static_cast<int>(difference == 0);
    if (best.length < inWindow) difference |= LoadLittle32(candidate + best.length - 3) ^ tail;
    if (difference != 0) continue;
    const uint32_t length = MeasureMatch(window, at, distance, limit);
    if (length <= best.length) continue;
    best = {length, distance};
    if (length >= kContentLength || length == limit) break;
    tail = LoadLittle32(cursor + length - 3);
  } while (left > 0 && Further(area, position, distance));
  return best;
}

// The three phases, from the nearest candidate, `distance` back; too far if there is none.
inline Match FindInChain(const CompressionArea& area, const SearchWindow& window, uint32_t at,
                         uint32_t position, uint32_t distance, uint32_t effort) {
  if (distance > kMaxOffset) return {0, 0};
  const uint32_t head = LoadLittle32(window.source + at);
  const unsigned char* cursor = window.behind + at;
  uint32_t difference = LoadLittle32(cursor - distance) ^ head;
  for (uint32_t left = effort; (difference & kTwoBytes) != 0; --left) {
    if (left == 0 || !Further(area, position, distance)) return {0, 0};
    difference = LoadLittle32(cursor - distance) ^ head;
  }
  const Match two{2, distance};
  for (uint32_t left = effort; (difference & kThreeBytes) != 0; --left) {
    if (left == 0 || !Further(area, position, distance)) return two;
    difference = LoadLittle32(cursor - distance) ^ head;
  }
  return FindLongest(area, window, at, position, distance, effort);
}

// Enters the cursor's position (`at` in the source, at least five bytes before its end) and looks
// for a match.
template <typename Hashes>
inline Match FindMatch(CompressionArea& area, const SearchWindow& window, const Hashes& hashes,
                       uint32_t at, uint32_t position, uint32_t effort) {
  const uint32_t distance = EnterPosition(area, position, hashes.At(at));
  return FindInChain(area, window, at, position, distance, effort);
}

// A match so long that nothing before its end stays in reach moves the positions on by less than
// its length, so that they do not run out.
inline uint32_t PositionBehind(uint32_t position, uint32_t length) {
  return position + (length < kLongJump ? length : kLongJump / 2 + length % kChainSize);
}

// For `count` positions, at most kChainSize.
inline void MarkNotEntered(CompressionArea& area, uint32_t position, uint32_t count) {
  const uint32_t slot = position % kChainSize;
  const uint32_t inFront = std::min(count, kChainSize - slot);
  std::memset(area.chain + slot, kNotEntered, inFront * sizeof *area.chain);
  std::memset(area.chain, kNotEntered, (count - inFront) * sizeof *area.chain);
}

enum class IndexMode { None, Ends, Bodies };

// Enters the positions inside a match as the mode asks, and returns the position behind it. With
// bodies indexed, marks what is not entered.
template <IndexMode kMode, typename Hashes>
inline uint32_t EnterMatch(CompressionArea& area, const SearchWindow& window, const Hashes& hashes,
                           uint32_t at, uint32_t position, Match match) {
  const uint32_t end = PositionBehind(position, match.length);
  if constexpr (kMode == IndexMode::None) return end;
  const uint32_t behindMatch = at + match.length;
  // The last byte of the source has no following byte to hash with.
  const uint32_t last = behindMatch == window.size ? 2 : 1;
  uint32_t back = 1;
  if constexpr (kMode == IndexMode::Bodies) {
    back = std::min(match.length - 1, kMaxOffset);
    if (last == 2) MarkNotEntered(area, end - 1, 1);
    if (match.offset == 1) {
      MarkNotEntered(area, end - back, back - 1);
      back = 1;
    }
  }
  for (; back >= last; --back) EnterPosition(area, end - back, hashes.At(behindMatch - back));
  return end;
}

}  // namespace capsule::lzs
