// Sections of FAT-style records as other writers make them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/foreign_image.h"

namespace capsule::test {

struct ForeignItem {
  std::string shortName = {};    // 11 bytes, padded with blanks
  std::u16string longName = {};  // empty: none
  bool directory = false;
  Bytes content = {};
  bool stored = false;  // do not compress
  std::vector<ForeignItem> children = {};
};

struct FatStyle {
  uint8_t systemId = 0x0B;
  size_t chunkSize = 8192;
  bool notes = false;  // marks and notes between the index records
};

// The whole section with its index records.
void PutFatSection(ForeignImage& image, const std::vector<ForeignItem>& items,
                   const FatStyle& style);

}  // namespace capsule::test
