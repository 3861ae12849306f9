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
// `descriptor` is open on the same file. Throws host::Error.
std::unique_ptr<Catalog> ReadCatalog(int descriptor, const std::string& path,
                                     const DecodedHeader& header, const IndexContents& index,
                                     std::vector<ImageProblem>* problems);

}  // namespace capsule::host
