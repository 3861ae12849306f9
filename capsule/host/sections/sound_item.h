// Tells whether an item that was found in a section can be believed.
#pragma once

#include "capsule/host/file/file_window.h"
#include "capsule/host/sections/section_scanner.h"

namespace capsule::host {

// Judges items by their own records.
class SoundItem {
 public:
  SoundItem(FileWindow& window, ImageFile image, bool compressed)
      : m_window(window), m_image(std::move(image)), m_compressed(compressed) {}

  // Whether the records of `item` bear out that it is one and ends where it seems to: names and
  // their checksums hold, a zero entry is zero, the data of a file reads completely.
  bool Is(const SectionItem& item) const;

  // Whether it is also more likely what it seems to be than damage to one of that kind.
  bool IsRatherThan(const SectionItem& item, SectionItem::Kind kind) const;

 private:
  FileWindow& m_window;
  ImageFile m_image;
  bool m_compressed;
};

// That of the folder at that place, if one is there.
DotName DotNameAt(FileWindow& window, uint64_t offset);

}  // namespace capsule::host
