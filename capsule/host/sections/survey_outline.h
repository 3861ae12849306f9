// What an index without a check value tells about the places of items. Nothing vouches for it, so
// sound records are believed before it; where records are damaged it tells what stood there.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

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

  std::vector<Item> m_items;  // ascending
};

}  // namespace capsule::host
