// Hashes of the index, worked out ahead for a block of positions.
#pragma once

#include "capsule/compression/match_search.h"

namespace capsule::lzs {

// Ahead the division is one multiplication, for
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

}  // namespace capsule::lzs
