// MapPaths names what a map passes as the tree of the image does. Both go over the file in its
// order, so one step forward in the tree's places finds the entry that begins at a record.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "capsule/host/sections/section_scanner.h"
#include "capsule/host/tree/catalog.h"

namespace capsule::host {

class MapPaths {
 public:
  // `tree`: null when there is none; then no folder is known.
  explicit MapPaths(const Catalog* tree) : m_tree(tree) {
    if (tree == nullptr) return;
    m_places = tree->Places();
    m_lengths.resize(tree->Size());
    for (uint32_t id = 0; id < tree->Size(); ++id) {
      const CatalogNode& node = tree->Node(id);
      const size_t length = m_lengths[node.parent] + size_t{1} + node.nameLength;
      if (!tree->IsRoot(id)) m_lengths[id] = static_cast<uint16_t>(std::min(length, kTooLong));
    }
  }

  void BeginSection(int section) {
    m_section = section;
    m_folder.reset();
  }

  // Passes all entries that begin up to `offset`: the innermost open folder is then the one that
  // the last of them opens or lies in. That one, unless it begins before `first`.
  std::optional<uint32_t> GoTo(uint64_t first, uint64_t offset) {
    const size_t before = m_next;
    while (m_next < m_places.size() && m_places[m_next].first <= offset) ++m_next;
    if (m_next == before) return std::nullopt;
    const auto [begin, entry] = m_places[m_next - 1];
    m_section = m_tree->Node(entry).partition;
    m_folder = m_tree->OpensFolder(entry) ? entry : m_tree->Node(entry).parent;
    return begin < first ? std::nullopt : std::optional(entry);
  }

  // Leaves the innermost open folder.
  void Leave() {
    if (m_folder) m_folder = m_tree->Node(*m_folder).parent;
  }

  bool IsAtTop() const { return m_folder && m_tree->IsRoot(*m_folder); }
  bool IsBelowTop() const { return m_folder && !m_tree->IsRoot(*m_folder); }

  // Of the innermost open folder.
  std::string FolderPath() const { return PathOfFolder(m_folder); }

  // Of an entry, or of what is none but is called `name` and lies in the innermost open folder. One
  // that was made up for what is left of a lost folder is not said to have anything else in it.
  std::string PathOf(std::optional<uint32_t> entry, const std::string& name) const {
    auto folder = entry ? m_tree->Node(*entry).parent : m_folder;
    if (!entry && folder && m_tree->Node(*folder).isPlaceholder) folder.reset();
    std::string path = PathOfFolder(folder);
    if (!path.ends_with('/')) path += '/';
    return path.append(entry ? m_tree->Name(*entry) : name);
  }

 private:
  static constexpr size_t kTooLong = kMaxScannedPath + 2;  // of a path with '/' in front of names

  // Long paths are not spelled out, so that nested folders cannot make a map grow with the square
  // of the image's size.
  std::string PathOfFolder(std::optional<uint32_t> folder) const {
    if (folder && m_lengths[*folder] < kTooLong) return m_tree->At(*folder).Path();
    return std::to_string(m_section) + ":/…";
  }

  const Catalog* m_tree;
  std::vector<std::pair<uint32_t, uint32_t>> m_places;
  std::vector<uint16_t> m_lengths;   // of the paths of entries, up to kTooLong
  size_t m_next = 0;                 // of the places
  int m_section = 0;                 // as the tree counts, where it is known
  std::optional<uint32_t> m_folder;  // the innermost open one
};

}  // namespace capsule::host
