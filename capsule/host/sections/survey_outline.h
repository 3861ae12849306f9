// What an index without a check value tells about the places of items. Nothing vouches for it, so
// sound records are believed before it; where records are damaged it tells what stood there.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "capsule/host/file/file_window.h"
#include "capsule/host/index/index_check.h"
#include "capsule/host/sections/section_scanner.h"

namespace capsule::host {

class SurveyOutline {
 public:
  struct Item {
    uint64_t offset = 0;
    uint64_t end = 0;  // where the next one begins, or the trailer
    // In FAT-style sections, when the index names "." and "..": then what has no name is a zero
    // entry, and what is followed by "." a folder.
    std::optional<SectionItem::Kind> kind;
  };

  // `index` kept its records; `limit`: where the sections end at the latest.
  SurveyOutline(const IndexContents& index, uint64_t limit);

  // The item that begins there, or null.
  const Item* At(uint64_t offset) const;

 private:
  void TellKinds(const std::vector<IndexRecord>& records);

  std::vector<Item> m_Items;  // ascending
};

// Judges items by their own records.
class SoundItem {
 public:
  SoundItem(FileWindow& window, ImageFile image, bool compressed)
      : m_Window(window), m_image(std::move(image)), m_bCompressed(compressed) {}

  // Whether they bear out that it is one, and ends where it seems to: names and their checksums
  // hold, a zero entry is zero, the data of a file reads completely.
  bool Is(const SectionItem& item) const;

  // Whether it is also more likely what it seems to be than damage to one of that kind.
  bool IsRatherThan(const SectionItem& item, SectionItem::Kind kind) const;

 private:
  FileWindow& m_Window;
  ImageFile m_image;
  bool m_bCompressed;
};

// Whether an entry of that name, "." or "..", is there.
bool IsDotAt(FileWindow& window, uint64_t offset, std::string_view name);

}  // namespace capsule::host
