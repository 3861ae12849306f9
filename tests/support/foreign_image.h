// ForeignImage lays out images as other writers of the format do: either header layout, scrambled
// or not, any system id, an index with marks and notes in it. Sections are put into it record by
// record (fat_section.h, ntfs_section.h).
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tests/support/lzs_writer.h"

namespace capsule::test {

struct ForeignHeader {
  std::string version = "Foreign writer 1.0";
  uint16_t tailOffset = 0;  // not 0: compact layout
  bool scrambled = false;
  std::string key = {};  // up to 36 bytes
  bool compressed = true;
};

// Visits data by chunks of `size` bytes, the last filled up to whole sectors; visit(chunk, last).
template <typename Visit>
void VisitChunks(std::span<const unsigned char> data, size_t size, Visit visit) {
  for (; !data.empty(); data = data.subspan(std::min(size, data.size()))) {
    const auto part = data.first(std::min(size, data.size()));
    Bytes chunk(part.begin(), part.end());
    chunk.resize((chunk.size() + 511) / 512 * 512);
    visit(chunk, part.size() == data.size());
  }
}

class ForeignImage {
 public:
  explicit ForeignImage(ForeignHeader header);

  bool Compressed() const { return m_header.compressed; }

  // Where the next byte goes.
  uint32_t Offset() const { return static_cast<uint32_t>(m_bytes.size()); }
  void Put(std::span<const unsigned char> bytes);

  // The 2056 bytes that open a section; `kind` is the third of them (2 FAT, 3 NTFS).
  void BeginSection(uint8_t systemId, uint8_t kind);

  // The 1544 bytes that close it.
  void EndSection();

  // Index records in the order in which readers see them.
  void Index(uint8_t type, uint32_t offset, uint32_t length, const std::string& name = {});

  // One that has no name, offset and length: a group mark (1) or a type that readers do not know.
  void IndexMark(uint8_t type);

  // Completes header and index.
  Bytes Finish();

 private:
  void FillFixedHeader();
  void FillCompactHeader();
  void Scramble();

  ForeignHeader m_header;
  Bytes m_bytes;
  Bytes m_index;
  std::vector<uint8_t> m_systemIds;
};

}  // namespace capsule::test
