// Writes one file of an image into an open folder.
#pragma once

#include <cstdint>
#include <functional>

#include "capsule/host/extractor.h"
#include "capsule/host/image.h"

namespace capsule::host {

struct ExtractedFile {
  uint64_t bytes = 0;
  bool isDamaged = false;  // and all that is lost of it was told
};

// `folder` is a descriptor. The file appears under its name when it is complete, or when the
// options take what is left of it, or not at all; an existing one is replaced only with `force`.
// `onBytes` learns how much of it is there; what it throws ends it. Throws Error.
ExtractedFile ExtractFile(const Image& image, const Entry& file, int folder,
                          const ExtractOptions& options,
                          const std::function<void(uint64_t bytes)>& onBytes);

}  // namespace capsule::host
