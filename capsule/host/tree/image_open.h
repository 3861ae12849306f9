// Opens the tree of an image through its index.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "capsule/host/image_problem.h"
#include "capsule/host/index/index_check.h"
#include "capsule/host/tree/catalog.h"

namespace capsule::host {

// The tree of an image: read through the exported classes where sections hold NTFS records.
// Throws host::Error.
std::unique_ptr<Catalog> ReadCatalog(const ImageFile& image, const DecodedHeader& header,
                                     const IndexContents& index,
                                     std::vector<ImageProblem>* problems);

}  // namespace capsule::host
