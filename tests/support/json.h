// JSON of samples and of what the command prints. It is parsed, and the class itself compiled, in
// one place: in every test that reads some they would take longer to compile than the tests.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

extern template class nlohmann::basic_json<>;

namespace capsule::test {

using Json = nlohmann::json;

Json ParseJson(const std::string& text);

// One value a line.
std::vector<Json> ParseJsonLines(const std::string& text);

// What the sample images hold, one object an image: header, offsets of the index, trees.
const std::vector<Json>& SampleImages();

}  // namespace capsule::test
