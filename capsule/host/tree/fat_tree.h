// Builds the tree of FAT-style sections from the index of an image and the record groups that it
// names, which must be there and be what a checked index says.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/host/image_problem.h"
#include "capsule/host/index/index_check.h"
#include "capsule/host/tree/catalog.h"

namespace capsule::host {

// None of the sections holds NTFS records. Entries whose names are damaged are added to `problems`
// and go by their short names. Throws Error with the first record that cannot be read, that reaches
// into the next item, or that contradicts a checked index.
std::unique_ptr<Catalog> ReadFatTree(const ImageFile& image, const DecodedHeader& header,
                                     const IndexContents& index,
                                     std::vector<ImageProblem>* problems);

}  // namespace capsule::host
