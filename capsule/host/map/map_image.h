// The map of an image that is open.
#pragma once

#include <functional>
#include <string>

#include "capsule/host/map_item.h"

namespace capsule::host {

// As the MapImage of hosts; the file stays the caller's. `name`: what errors call it. `hasIndex`:
// false when nothing that the header says of an index is believed.
MapSummary MapImage(int descriptor, const std::string& name,
                    const std::function<void(const MapItem&)>& take, bool hasIndex = true);

}  // namespace capsule::host
