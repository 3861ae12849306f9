// Reads the entries of an NTFS section where the index says that they are, and tells the folder of
// each by counting: they come in the order of a walk that goes down first, and every folder knows
// how many children it has.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "capsule/host/file/file_window.h"
#include "capsule/host/records/ntfs_entry.h"

namespace capsule::host {

class NtfsSection {
 public:
  // `limit`: where the sections end. `window` and `image`, what errors call the file, must outlive
  // the section.
  NtfsSection(FileWindow& window, uint64_t limit, bool compressed, const std::string& image,
              size_t partition)
      : m_window(window),
        m_limit(limit),
        m_compressed(compressed),
        m_image(image),
        m_partition(partition) {}

  // Reads the entry at `offset`; the first one is the root. False when there is none: the records
  // end there, or no folder has a place left. Throws Error when a record is damaged, or when
  // entries take more bytes than there are.
  bool Read(uint32_t offset);

  // The one that came last.
  const NtfsEntry& Entry() const { return m_entry; }
  bool IsRoot() const { return m_isRoot; }

  // Folders around it, the root not counted.
  size_t Depth() const { return m_depth; }

 private:
  bool TakePlace();
  [[noreturn]] void Fail(uint32_t offset, const std::string& what) const;

  FileWindow& m_window;
  uint64_t m_limit;
  bool m_compressed;
  const std::string& m_image;
  size_t m_partition;
  NtfsEntry m_entry;
  bool m_hasRoot = false;
  bool m_isRoot = false;
  size_t m_depth = 0;
  uint64_t m_taken = 0;             // bytes of all entries
  std::vector<uint64_t> m_missing;  // children of each open folder that are still to come
};

}  // namespace capsule::host
