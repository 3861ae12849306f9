// What rows of "." and ".." stand for. Behind a folder stand its own two. A drive's root, and a
// folder with a separator behind it, are stored as ".", "." and "..", which are of no folder.
#pragma once

#include <cstddef>

#include "capsule/partition/entry_group.h"

namespace capsule::host {

// Whether the two of a folder begin at item `i`; `dotAt` gives the DotName of an item by its
// number.
template <typename DotAt>
bool AreOfFolder(const DotAt& dotAt, size_t i) {
  return dotAt(i) == DotName::Itself && dotAt(i + 1) == DotName::Above;
}

// Whether the entries ".", "." and ".." that are of no folder begin at item `i`.
template <typename DotAt>
bool AreOfNoFolder(const DotAt& dotAt, size_t i) {
  return dotAt(i) == DotName::Itself && AreOfFolder(dotAt, i + 1);
}

}  // namespace capsule::host
