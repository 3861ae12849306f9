// MapPaths names what a map passes as the tree of the image does, so that all that names a damaged
// item calls it the same.
//
//   MapPaths paths(&image);
//   paths.BeginSection(0, 7560);
//   if (const auto entry = paths.GoTo(9616, 9656)) Use(paths.PathOf(*entry));
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "capsule/host/image.h"
#include "capsule/host/tree/catalog.h"

namespace capsule::host {

class MapPaths {
 public:
  // `image` must outlive the paths; null when it cannot be opened: then no folder is known.
  explicit MapPaths(const Image* image);

  void BeginSection(int section, uint64_t offset);

  // Passes all entries of the tree that begin up to `offset`: the innermost open folder is then the
  // one that the last of them opens or lies in. That one, unless it begins before `first`.
  std::optional<uint32_t> GoTo(uint64_t first, uint64_t offset);

  // Leaves the innermost open folder.
  void Leave();

  bool AtTop() const { return m_folder && m_tree->IsRoot(*m_folder); }

  // Of the innermost open folder. Paths of more than kMaxScannedPath bytes are not spelled out, so
  // that nested folders cannot make a map grow with the square of the image's size.
  std::string FolderPath() const { return PathOfFolder(m_folder); }

  // Of an entry of the tree, and of something in the innermost open folder that is none.
  std::string PathOf(uint32_t entry) const;
  std::string PathOf(const std::string& name) const { return Below(FolderPath(), name); }

 private:
  std::string PathOfFolder(std::optional<uint32_t> folder) const;
  static std::string Below(std::string folder, std::string_view name);

  const Catalog* m_tree = nullptr;
  std::vector<std::pair<uint32_t, uint32_t>> m_places;  // offset and entry, ascending
  size_t m_next = 0;                                    // of the places
  int m_section = 0;
  std::optional<uint32_t> m_folder;
};

}  // namespace capsule::host
