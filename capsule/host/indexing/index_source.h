// What an index is made of: the items of the sections, in file order, and what is wrong with them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "capsule/container/index_format.h"
#include "capsule/host/sections/section_scanner.h"

namespace capsule::host {

// How far the sections are trusted.
enum class SectionTrust {
  Written,  // they have just been written: only that one record leads to the next is looked at
  Sound,    // nothing was found on opening: what files hold is decoded
  Damaged,  // something was: what is left is handed out
};

struct ItemVisitor {
  // `damage`: what is wrong with a file or with the name of an item; empty when nothing is.
  std::function<void(const SectionItem& item, const std::string& damage)> onItem;

  // What is wrong with the image as a whole.
  std::function<void(const DamageNote& note)> onImage;
};

// Hands out the items of an image. Where they end. Throws host::Error with the first fault that
// leaves the folders of what follows in doubt; unless the sections are known to be damaged, this is
// any fault that is not in the data of a file.
uint64_t VisitItems(const ImageFile& image, SectionTrust trust, const ItemVisitor& visitor);

// Whether the image has an index, checked or not, that can be read: it may tell what damaged
// sections do not tell any more.
bool HasReadableIndex(const ImageFile& image);

}  // namespace capsule::host
