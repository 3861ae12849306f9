// The fields of an image header, whichever layout it has and however much of it there is.
#pragma once

#include <cstddef>

#include "capsule/container/stored_header.h"
#include "capsule/host/map/map_sink.h"

namespace capsule::host {

// Passes every field of the header on to `sink`, up to the end of the `stored` bytes that there
// are.
void MapHeader(const StoredHeader& header, size_t stored, MapSink& sink);

}  // namespace capsule::host
