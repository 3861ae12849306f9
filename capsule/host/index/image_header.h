// Reads the header of an image and judges what it tells. Each function throws host::Error when it
// cannot.
#pragma once

#include <cstdint>
#include <string>

#include "capsule/container/stored_header.h"
#include "capsule/host/index/index_check.h"

namespace capsule::host {

// The header of the image at `path`, checked for being one that can be read.
DecodedHeader ReadImageHeader(int descriptor, const std::string& path, uint64_t fileSize);

// Throws when the header tells of no index, or of one that does not lie in the image.
void CheckIndexOffset(const DecodedHeader& header, const std::string& path, uint64_t fileSize);

// Where the sections end at the latest: an index that is not one says nothing about it. `index`:
// what could be read of it.
uint64_t LimitOfSections(int descriptor, const std::string& path, const DecodedHeader& header,
                         const IndexContents& index, uint64_t fileSize);

}  // namespace capsule::host
