// Map and tree go over the same records in the order of the file. So one step forward in the sorted
// places of the tree's entries finds what begins at each record.
#include "capsule/host/map/map_paths.h"

#include <algorithm>

namespace capsule::host {

MapPaths::MapPaths(const Image* image) {
  if (image == nullptr || image->Partitions() == 0) return;
  m_tree = &Catalog::Of(image->Root(0));
  m_places = m_tree->Places();
}

void MapPaths::BeginSection(int section, uint64_t offset) {
  m_section = section;
  m_folder.reset();
  GoTo(offset, offset);
}

std::optional<uint32_t> MapPaths::GoTo(uint64_t first, uint64_t offset) {
  std::optional<uint32_t> passed;
  for (; m_next < m_places.size() && m_places[m_next].first <= offset; ++m_next) {
    passed = m_places[m_next].second;
  }
  if (!passed) return std::nullopt;
  const bool isOpened = m_tree->Node(*passed).isDirectory && !m_tree->IsDot(*passed);
  m_folder = isOpened ? *passed : m_tree->Node(*passed).parent;
  return m_tree->Node(*passed).offset < first ? std::nullopt : passed;
}

void MapPaths::Leave() {
  if (m_folder) m_folder = m_tree->Node(*m_folder).parent;
}

std::string MapPaths::PathOf(uint32_t entry) const {
  return Below(PathOfFolder(m_tree->Node(entry).parent), m_tree->Name(entry));
}

std::string MapPaths::PathOfFolder(std::optional<uint32_t> folder) const {
  const auto path = folder ? m_tree->PathIfShort(*folder) : std::nullopt;
  return path.value_or(std::to_string(folder ? m_tree->Node(*folder).partition : m_section) +
                       ":/…");
}

std::string MapPaths::Below(std::string folder, std::string_view name) {
  if (!folder.ends_with('/')) folder += '/';
  return folder.append(name);
}

}  // namespace capsule::host
