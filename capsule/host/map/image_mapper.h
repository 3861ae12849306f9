// Maps an image: image_map.h says how.
#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "capsule/host/file/image_file.h"
#include "capsule/host/image.h"
#include "capsule/host/map_item.h"

namespace capsule::host {

// The image, opened for what is left of it; null where it cannot be, and `why` tells why.
std::unique_ptr<Image> OpenLeft(const ImageFile& image, std::optional<Error>* why);

// `tree`: the same image opened, or null where it cannot be: then folders are not named.
// `hasIndex`: false when nothing that the header says of an index is believed.
MapSummary MapImage(const ImageFile& image, const Image* tree,
                    const std::function<void(const MapItem&)>& take, bool hasIndex = true);

}  // namespace capsule::host
