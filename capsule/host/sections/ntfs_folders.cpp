// A folder whose number is not stated is bound to the reference of the first entry behind it. When
// two open folders have the same reference, the inner one covers the outer, and closing it uncovers
// that again.
#include "capsule/host/sections/ntfs_folders.h"

#include <algorithm>

namespace capsule::host {

void NtfsFolders::Clear() {
  m_folders.clear();
  m_levels.clear();
}

std::optional<size_t> NtfsFolders::Find(const NtfsEntry& entry) {
  std::optional<size_t> innermost;
  for (const uint32_t parent : entry.parents) {
    const auto level = m_levels.find(parent);
    if (level != m_levels.end()) innermost = std::max(innermost.value_or(0), level->second);
  }
  if (innermost || entry.parents.empty()) return innermost;
  // Below a folder of which nothing is known there may be one that is lost.
  for (size_t level = m_folders.size(); level > 0 && level + 2 > m_folders.size(); --level) {
    const Folder& folder = m_folders[level - 1];
    if (folder.reference || !folder.hasChildren) continue;
    Bind(level - 1, entry.parents.front());
    return level - 1;
  }
  return std::nullopt;
}

void NtfsFolders::Open(const NtfsEntry& folder) {
  m_folders.push_back({std::nullopt, folder.children > 0, std::nullopt});
  if (folder.number) {
    Bind(m_folders.size() - 1, *folder.number);
  } else if (m_folders.size() == 1 && !folder.parents.empty()) {
    Bind(0, folder.parents.front());  // the root is its own parent
  }
}

void NtfsFolders::OpenLost(const NtfsEntry& child) {
  m_folders.push_back({std::nullopt, false, std::nullopt});
  if (!child.parents.empty()) Bind(m_folders.size() - 1, child.parents.front());
}

void NtfsFolders::OpenLost() { m_folders.push_back({std::nullopt, true, std::nullopt}); }

void NtfsFolders::CloseTo(size_t depth) {
  while (m_folders.size() > std::max<size_t>(depth, 1)) {
    const Folder& folder = m_folders.back();
    if (folder.covered) {
      m_levels[*folder.reference] = *folder.covered;
    } else if (folder.reference) {
      m_levels.erase(*folder.reference);
    }
    m_folders.pop_back();
  }
}

void NtfsFolders::Bind(size_t level, uint32_t reference) {
  Folder& folder = m_folders[level];
  folder.reference = reference;
  const auto [known, isNew] = m_levels.try_emplace(reference, level);
  if (isNew) return;
  folder.covered = known->second;
  known->second = level;
}

}  // namespace capsule::host
