// Writes one file of an image into an open folder.
#pragma once

#include <cstdint>

#include "capsule/host/image.h"

namespace capsule::host {

// `folder` is a descriptor. The file appears under its name when it is complete, or not at all; an
// existing one is replaced only with `force`. How many bytes were written; throws Error.
uint64_t ExtractFile(const Image& image, const Entry& file, int folder, bool force);

}  // namespace capsule::host
