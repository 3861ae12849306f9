// Reads the header of an image and judges what it tells. Each function throws host::Error when it
// cannot.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "capsule/container/stored_header.h"
#include "capsule/host/error.h"
#include "capsule/host/index/index_check.h"

namespace capsule::host {

// The header of the image at `path`, checked for being one that can be read.
DecodedHeader ReadImageHeader(const ImageFile& image);

// Whether a header that cannot be read is one at all: Damaged then, else NotAnImage. `stored`: the
// first bytes of the file.
ErrorKind KindOfBadHeader(const StoredHeader& header);

// Throws when the header tells of no index, or of one that does not lie in the image.
void RequireIndexInFile(const DecodedHeader& header, const ImageFile& image);

// Where the sections end at the latest: an index that is not one says nothing about it. `index`:
// what could be read of it.
uint64_t LimitOfSections(const ImageFile& image, const DecodedHeader& header,
                         const IndexContents& index, uint64_t fileSize);

}  // namespace capsule::host
