// Which pairs of bytes there may be in reach, for data in which hardly any comes twice: what is not
// there needs no search.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "capsule/compression/match_search.h"

namespace capsule::lzs {

// Two sets, of which the older is forgotten when the newer alone covers what is in reach.
class PairFilter {
 public:
  // Begins with the `reach` bytes before `cursor`, at most kMaxOffset.
  void Start(const unsigned char* cursor, uint32_t reach) {
    std::memset(m_sets, 0, sizeof m_sets);
    m_added = 0;
    for (; reach != 0; --reach) Add(LoadLittle32(cursor - reach));
  }
  // Adds the first two bytes of `here`; whether they may have been there.
  bool Add(uint32_t here) {
    const uint32_t pair = here & 0xFFFF;
    const uint64_t bit = uint64_t{1} << pair % 64;
    uint64_t& newer = m_sets[m_newer][pair / 64];
    const uint64_t both = newer | m_sets[1 - m_newer][pair / 64];
    newer |= bit;
    ++m_added;
    return (both & bit) != 0;
  }
  // Now and then, so that not everything may have been there.
  void Forget() {
    if (m_added < kMaxOffset) return;
    m_newer = 1 - m_newer;
    m_added = 0;
    std::memset(m_sets[m_newer], 0, sizeof m_sets[m_newer]);
  }

 private:
  uint64_t m_sets[2][0x10000 / 64];
  uint32_t m_newer = 0;
  uint32_t m_added = 0;  // to the newer set
};

}  // namespace capsule::lzs
