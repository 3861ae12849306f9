// Builds the tree of an image from its index and the entries that it names, which must be there and
// be what a checked index says.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/host/image_problem.h"
#include "capsule/host/index/index_check.h"
#include "capsule/host/tree/catalog.h"

namespace capsule::host {

// Entries whose names are damaged are added to `problems` and go by their short names, those of
// NTFS sections for which no folder has a place are added and left out. Throws Error with the first
// record that cannot be read, that reaches into the next item, or that contradicts a checked index.
std::unique_ptr<Catalog> ReadIndexedTree(const ImageFile& image, const DecodedHeader& header,
                                         const IndexContents& index,
                                         std::vector<ImageProblem>* problems);

}  // namespace capsule::host
