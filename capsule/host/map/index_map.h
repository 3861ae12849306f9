// The records of an image's index, one by one.
#pragma once

#include <cstdint>

#include "capsule/host/file/file_window.h"
#include "capsule/host/map/map_sink.h"

namespace capsule::host {

// Whether an index may begin at `offset`.
bool LooksLikeIndex(FileWindow& window, uint64_t offset, uint64_t fileBytes);

// Passes the index on, up to the record that ends it or the end of the file.
void MapIndex(const ImageFile& image, FileWindow& window, uint64_t offset, MapSink& sink);

}  // namespace capsule::host
