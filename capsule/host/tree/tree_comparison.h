// Holds the tree that an index leads to against the one that its sections give by themselves.
#pragma once

#include <string>

#include "capsule/host/tree/catalog.h"

namespace capsule::host {

// The first entry that one has and the other has not, or has elsewhere, in words; empty when there
// is none. What a scan could only put into a folder of its own making does not count.
std::string CompareTrees(const Catalog& indexed, const Catalog& scanned);

}  // namespace capsule::host
