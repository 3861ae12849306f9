// Header decoding: never out of bounds, never more partitions than there is room for; scrambling
// and restoring are each other's inverse.
#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/container/header_scramble.h"
#include "fuzz/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using capsule::fuzz::Require;
  std::array<unsigned char, capsule::kHeaderSize> header{};
  std::copy_n(data, std::min(size, header.size()), header.begin());
  std::string problem;
  const bool inPlace = capsule::RestoreScrambledRegion(header, &problem);
  Require(inPlace != !problem.empty(), "a region is restored or its problem is named");
  problem.clear();
  const auto decoded = capsule::DecodeHeader(header, &problem);
  Require(decoded.has_value() != !problem.empty(), "a header is decoded or its problem is named");
  Require(!decoded || decoded->partitions.size() <= 255, "as many partitions as a byte counts");

  if (size < 8) return 0;
  const std::string key(data + 1, data + 1 + data[0] % 8);
  std::vector<unsigned char> region(data, data + size);
  const auto length = static_cast<int>(region.size());
  const uint32_t plain = capsule::HeaderScramble(region.data(), key.c_str(), length, 0);
  const uint32_t restored = capsule::HeaderScramble(region.data(), key.c_str(), length, 1);
  Require(plain == restored && std::equal(region.begin(), region.end(), data),
          "restoring undoes scrambling");
  return 0;
}
