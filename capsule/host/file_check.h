// What an index states about a file beside where it is.
#pragma once

#include <cstdint>

namespace capsule::host {

// The check value of a file: XXH3 of its record group and its data records as they are stored.
struct FileCheck {
  uint32_t offset = 0;  // where they begin in the image
  uint32_t length = 0;
  uint64_t value = 0;
};

}  // namespace capsule::host
