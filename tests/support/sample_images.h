// Sample images with what they hold, from tests/data/images.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace capsule::test {

inline std::string SamplePath(const std::string& file) {
  return std::string(CAPSULE_TEST_DATA) + "/images/" + file;
}

// One JSON object an image: header, offsets of the index, trees.
inline const std::vector<nlohmann::json>& SampleImages() {
  static const std::vector<nlohmann::json> samples =
      nlohmann::json::parse(ReadFile(SamplePath("manifest.json")))
          .at("images")
          .get<std::vector<nlohmann::json>>();
  return samples;
}

}  // namespace capsule::test
