// A chain of two-byte hashes does not tell which positions were left out of it. So they are found
// by walking all chains once, and the second index is then filled with the positions that were
// entered, oldest first.
#include "capsule/compression/triple_search.h"

#include <cstring>

namespace capsule::lzs {
namespace {

// Finds what was entered by walking all chains, and marks the rest.
void MarkAll(CompressionArea& area, uint32_t position, uint32_t reach) {
  bool isEntered[kChainSize] = {};
  for (uint32_t i = 0; i < kHashSize; ++i) {
    uint32_t distance = position - area.heads[i];
    while (distance <= reach) {
      isEntered[distance] = true;
      distance += area.chain[(position - distance) % kChainSize];
    }
  }
  for (uint32_t back = 1; back <= reach; ++back)
    if (!isEntered[back]) MarkNotEntered(area, position - back, 1);
}

}  // namespace

void TripleIndex::Build(CompressionArea& area, const SearchWindow& window, uint32_t at,
                        uint32_t position, uint32_t reach, bool isMarked) {
  std::memset(m_heads, 0, sizeof m_heads);
  std::memset(m_ranks, 0, sizeof m_ranks);
  if (!isMarked) MarkAll(area, position, reach);
  const unsigned char* cursor = window.behind + at;
  for (uint32_t back = reach; back != 0; --back) {
    const uint32_t distance = area.chain[(position - back) % kChainSize];
    if (distance != kNotEntered)
      EnterTriple(position - back, distance, TripleHash(LoadLittle32(cursor - back)));
  }
}

}  // namespace capsule::lzs
