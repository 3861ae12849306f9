#include "tests/support/json.h"

#include <sstream>

#include "tests/support/sample_images.h"
#include "tests/support/temp_dir.h"

template class nlohmann::basic_json<>;

namespace capsule::test {

Json ParseJson(const std::string& text) { return Json::parse(text); }

std::vector<Json> ParseJsonLines(const std::string& text) {
  std::vector<Json> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(ParseJson(line));
  return lines;
}

const std::vector<Json>& SampleImages() {
  static const auto samples =
      ParseJson(ReadFile(SamplePath("manifest.json"))).at("images").get<std::vector<Json>>();
  return samples;
}

}  // namespace capsule::test
