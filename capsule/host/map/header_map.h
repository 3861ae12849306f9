// The fields of an image header, whichever layout it has and however much of it there is.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/host/map/map_sink.h"

namespace capsule::host {

struct MappedHeader {
  std::optional<DecodedHeader> decoded;
  std::string problem;  // why it could not be decoded, or what else is wrong
};

// Decodes `stored`, up to 7560 bytes from the start of a file.
MappedHeader DecodeStoredHeader(std::span<const unsigned char> stored);

// Passes every field on, up to the end of `stored`.
void MapHeader(std::span<const unsigned char> stored, MapSink& sink);

}  // namespace capsule::host
