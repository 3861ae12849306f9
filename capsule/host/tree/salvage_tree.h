// Builds the tree of an image by going through its sections instead of its index.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "capsule/host/image_problem.h"
#include "capsule/host/index/index_check.h"
#include "capsule/host/tree/catalog.h"

namespace capsule::host {

// What is left of the tree; empty when there is no section. A checked index, in `index`, shows the
// way where entries are damaged. `limit`: where the sections end at the latest. Problems are added,
// one for each damage.
std::unique_ptr<Catalog> SalvageCatalog(const ImageFile& image, const IndexContents& index,
                                        uint64_t limit, std::vector<ImageProblem>* problems);

// What an index without a check value cannot tell: whether the records of the sections are sound,
// and give the tree that the index leads to. `index` kept its records. Throws host::Error with the
// first fault.
void RequireSameSections(const ImageFile& image, const IndexContents& index, const Catalog& indexed,
                         uint64_t limit);

}  // namespace capsule::host
