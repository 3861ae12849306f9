// A second index for searches that may look at many candidates, kept for one call.
//
// What the three phases of a search find is fixed by the order of the candidates in the chain of
// two-byte hashes and by the effort that each of them costs, not by how they are found. So this
// index leads from a position straight to those before it that have the same three bytes, and gives
// every position a rank, which counts the entries of its chain: the difference of two ranks is how
// many candidates lie between them, and so what it would have cost to look at those.
#pragma once

#include "capsule/compression/match_search.h"

namespace capsule::lzs {

inline constexpr unsigned kTripleBits = 12;

// Of the first three bytes of `head`, a little-endian load.
inline uint32_t TripleHash(uint32_t head) {
  return (head << 8) * 0x9E3779B1U >> (32 - kTripleBits);
}

class TripleIndex {
 public:
  // Enters what `area` has in reach of `position`, the source byte `at`. `reach`: how many bytes
  // before it may be referred to. `isMarked`: the area's chain has kNotEntered for every position
  // of those that was not entered; otherwise it has so behind this call.
  void Build(CompressionArea& area, const SearchWindow& window, uint32_t at, uint32_t position,
             uint32_t reach, bool isMarked);

  // Enters `position`, whose first four bytes are `head`, here and in `area`; how far back the
  // previous one of its hash is.
  uint32_t Enter(CompressionArea& area, uint32_t position, uint32_t hash, uint32_t head) {
    const uint32_t distance = EnterPosition(area, position, hash);
    EnterTriple(position, distance, TripleHash(head));
    return distance;
  }
  // How far back the next candidate with the same hash of three bytes is, from `distance` back.
  uint32_t Further(uint32_t position, uint32_t distance) const {
    return position - m_previous[(position - distance) % kChainSize];
  }
  uint16_t Rank(uint32_t position, uint32_t distance) const {
    return m_ranks[(position - distance) % kChainSize];
  }

 private:
  // The chain's predecessor may be out of reach; then the rank begins with any number.
  void EnterTriple(uint32_t position, uint32_t distance, uint32_t triple) {
    const uint32_t rank = m_ranks[(position - distance) % kChainSize] + 1U;
    m_ranks[position % kChainSize] = static_cast<uint16_t>(rank);
    m_previous[position % kChainSize] = m_heads[triple];
    m_heads[triple] = position;
  }

  uint32_t m_heads[1 << kTripleBits];  // the latest position with that hash of three bytes; 0: none
  uint32_t m_previous[kChainSize];     // by position modulo 2048: the previous one with that hash
  uint16_t m_ranks[kChainSize];        // by position modulo 2048
};

// As FindLongest, by the second index. False if that leads past more candidates than the effort
// allows for.
inline bool FindLongestTriple(const TripleIndex& index, const SearchWindow& window, uint32_t at,
                              uint32_t position, uint32_t distance, uint32_t effort, Match& found) {
  const unsigned char* source = window.source + at;
  const unsigned char* cursor = window.behind + at;
  const uint32_t head = LoadLittle32(source);
  const uint32_t limit = MatchLimit(window.size - at);
  const uint32_t inWindow = std::min(limit, window.copied - at);
  const uint16_t start = index.Rank(position, distance);
  Match best{3, distance};
  uint32_t tail = head;
  uint32_t matched = 0;
  uint32_t steps = effort;
  do {
    const unsigned char* candidate = cursor - distance;
    const bool hasFour = LoadLittle32(candidate) == head;
    if (hasFour & (best.length >= inWindow || LoadLittle32(candidate + best.length - 3) == tail)) {
      const uint32_t before = static_cast<uint16_t>(start - index.Rank(position, distance));
      if (before != 0 && before + matched >= effort) break;
      const uint32_t length = MeasureMatch(window, at, distance, limit);
      if (length > best.length) {
        best = {length, distance};
        if (length >= kContentLength || length == limit) break;
        tail = LoadLittle32(source + length - 3);
      }
    }
    matched += hasFour;
    if (steps-- == 0) return false;
    distance = index.Further(position, distance);
  } while (distance <= kMaxOffset);
  found = best;
  return true;
}

// As FindInChain, by the second index as well. A walk there that leads past more candidates than
// the effort allows for is given up for the chain of the hash, so that the effort bounds both.
inline Match FindByTriples(const CompressionArea& area, const TripleIndex& index,
                           const SearchWindow& window, uint32_t at, uint32_t position, uint32_t two,
                           uint32_t effort) {
  if (two > kMaxOffset) return {0, 0};
  const uint32_t head = LoadLittle32(window.source + at);
  const unsigned char* cursor = window.behind + at;
  for (uint32_t left = effort; ((LoadLittle32(cursor - two) ^ head) & kTwoBytes) != 0; --left)
    if (left == 0 || !Further(area, position, two)) return {0, 0};
  uint32_t three = index.Further(position, 0);
  for (uint32_t left = effort;; --left) {
    if (three > kMaxOffset) return {2, two};
    if (((LoadLittle32(cursor - three) ^ head) & kThreeBytes) == 0) break;
    if (left == 0) return FindInChain(area, window, at, position, two, effort);
    three = index.Further(position, three);
  }
  const auto between =
      static_cast<uint16_t>(index.Rank(position, two) - index.Rank(position, three));
  if (between > effort) return {2, two};
  Match found{};
  if (FindLongestTriple(index, window, at, position, three, effort, found)) return found;
  return FindLongest(area, window, at, position, three, effort);
}

// As EnterMatch with IndexMode::Bodies, in both indexes.
template <typename Hashes>
inline uint32_t EnterWithTriples(CompressionArea& area, TripleIndex& index,
                                 const SearchWindow& window, const Hashes& hashes, uint32_t at,
                                 uint32_t position, Match match) {
  const uint32_t end = PositionBehind(position, match.length);
  const uint32_t behindMatch = at + match.length;
  // The search ends here, so that the second index needs no more.
  if (window.size - behindMatch < kSearchTail)
    return EnterMatch<IndexMode::Bodies>(area, window, hashes, at, position, match);
  uint32_t back = std::min(match.length - 1, kMaxOffset);
  if (match.offset == 1) {
    MarkNotEntered(area, end - back, back - 1);
    back = 1;
  }
  for (; back != 0; --back) {
    const uint32_t inside = behindMatch - back;
    index.Enter(area, end - back, hashes.At(inside), LoadLittle32(window.source + inside));
  }
  return end;
}

}  // namespace capsule::lzs
