// What an index is made of: the items of the sections, in file order.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "capsule/host/error.h"
#include "capsule/host/image.h"
#include "capsule/host/section_scanner.h"

namespace capsule::host {

// `isDamaged`: the data of a file cannot be read completely.
using TakeItem = std::function<void(const SectionItem& item, bool isDamaged)>;

// Hands out the items of an image. Where the last one ends. Throws host::Error with the first
// fault.
//
// `isDamaged`: it has faults. Its items are handed out as long as it is sure which folders they lie
// in: nothing but data of files is damaged, or what comes last. Where the file ends. What is
// damaged is added to `problems`. Throws when more is damaged.
uint64_t VisitItems(int descriptor, const std::string& path, bool isDamaged, const TakeItem& take,
                    std::vector<ImageProblem>* problems);

// Throws when the image has an index that can be read: it may tell what damaged sections do not
// tell any more. `damage`: what is wrong with them.
void RefuseToReplaceIndex(int descriptor, const std::string& path, const Error& damage);

}  // namespace capsule::host
