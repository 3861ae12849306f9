// Records damage in an index that is right, for an image whose sections are not what it says.
#pragma once

#include <string>

#include "capsule/host/image.h"
#include "capsule/host/index_writer.h"
#include "capsule/host/verifier.h"

namespace capsule::host {

// Compares `image`, which has an index whose check value holds, with all that this index tells.
// What is damaged is in the report. The index gets a note on each item that is damaged and has
// none, when `force`; otherwise host::Error is thrown, as it is when the index leads nowhere. It
// keeps all that it has besides, the check values of damaged items too. `descriptor`: the image
// open for writing. `options`: of the comparison, which takes the time.
IndexReport AnnotateIndex(int descriptor, const Image& image, bool force,
                          const VerifyOptions& options);

}  // namespace capsule::host
