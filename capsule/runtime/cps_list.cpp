// Removed elements at the front stay in the vector until they are half of it, then all go at once:
// each removal moves one element on average, and the vector never holds more dead than live ones.
#include "capsule/runtime/cps_list.h"

namespace capsule {

int CpsList::GetCount() const {
  const std::lock_guard guard(m_Lock);
  return static_cast<int>(m_Elements.size() - m_nFirst);
}

void* CpsList::GetAt(int index) const {
  const std::lock_guard guard(m_Lock);
  if (index < 0 || index >= GetCount()) return nullptr;
  return m_Elements[m_nFirst + static_cast<size_t>(index)];
}

void CpsList::Append(void* element) {
  const std::lock_guard guard(m_Lock);
  m_Elements.push_back(element);
  ++m_nChanges;
}

void CpsList::RemoveAt(int index) {
  const std::lock_guard guard(m_Lock);
  if (index < 0 || index >= GetCount()) return;
  ++m_nChanges;
  const auto first = m_Elements.begin();
  if (index > 0) {
    m_Elements.erase(first + static_cast<std::ptrdiff_t>(m_nFirst) + index);
    return;
  }
  ++m_nFirst;
  if (2 * m_nFirst >= m_Elements.size()) {
    m_Elements.erase(first, first + static_cast<std::ptrdiff_t>(m_nFirst));
    m_nFirst = 0;
  }
}

uint64_t CpsList::Changes() const {
  const std::lock_guard guard(m_Lock);
  return m_nChanges;
}

void CpsList::Lock() const { m_Lock.lock(); }

void CpsList::Unlock() const { m_Lock.unlock(); }

}  // namespace capsule
