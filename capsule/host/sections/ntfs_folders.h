// NtfsFolders keeps the folders that are open while the entries of an NTFS section are passed in
// their order, and tells to which of them the next one belongs. Constant time an entry.
//
// 1. The root is level 0 and never closes.
// 2. m_levels has, for every reference, the innermost folder that it leads to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "capsule/host/records/ntfs_entry.h"

namespace capsule::host {

class NtfsFolders {
 public:
  void Clear();

  // Folders that are open, the root included.
  size_t Depth() const { return m_folders.size(); }

  // The level of the folder that holds `entry`, or none. A folder that does not state its number
  // is known by the first entry behind it, if it has children.
  std::optional<size_t> Find(const NtfsEntry& entry);

  // Opens `folder` below the innermost.
  void Open(const NtfsEntry& folder);

  // Opens a lost folder, of which only the reference that `child` has to it is known, if any.
  void OpenLost(const NtfsEntry& child);

  // Opens a lost folder of which nothing is known but that the first entry behind it is its child.
  void OpenLost();

  // Closes all folders but the first `depth`.
  void CloseTo(size_t depth);

 private:
  struct Folder {
    std::optional<uint32_t> reference;
    bool hasChildren = false;
    std::optional<size_t> covered;  // the level that its reference led to before
  };

  void Bind(size_t level, uint32_t reference);

  std::vector<Folder> m_folders;
  std::unordered_map<uint32_t, size_t> m_levels;
};

}  // namespace capsule::host
