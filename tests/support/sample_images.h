// Where the sample images are. What they hold: SampleImages() in json.h.
#pragma once

#include <string>

namespace capsule::test {

// A file of tests/data/images.
inline std::string SamplePath(const std::string& file) {
  return std::string(CAPSULE_TEST_DATA) + "/images/" + file;
}

}  // namespace capsule::test
