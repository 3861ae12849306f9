// A name never lies across two blocks, and a block never moves, so a name that was handed out stays
// where it is while others are added.
#include "capsule/host/tree/name_store.h"

#include <algorithm>

namespace capsule::host {

uint32_t NameStore::Add(std::string_view name, std::string_view behind) {
  if (name.size() + behind.size() > kBlock - m_used || m_blocks.empty()) {
    m_blocks.push_back(std::make_unique_for_overwrite<char[]>(kBlock));
    m_used = 0;
  }
  const size_t place = (m_blocks.size() - 1) * kBlock + m_used;
  char* to = &m_blocks.back()[m_used];
  std::copy(behind.begin(), behind.end(), std::copy(name.begin(), name.end(), to));
  m_used += name.size() + behind.size();
  return static_cast<uint32_t>(place);
}

}  // namespace capsule::host
