// Stored headers of any length: never out of bounds, never more partitions than there is room for,
// and a completed one counts its sections; scrambling and restoring are each other's inverse.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "capsule/container/header_scramble.h"
#include "capsule/container/stored_header.h"
#include "fuzz/check.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using capsule::fuzz::Require;
  const capsule::StoredHeader cut({data, size});
  Require(size >= capsule::kHeaderSize || !cut.decoded, "a header that is cut short is refused");
  std::vector<unsigned char> stored(data, data + size);
  stored.resize(std::max<size_t>(size, capsule::kHeaderSize));
  const capsule::StoredHeader header(stored);
  Require(header.decoded.has_value() == header.problem.empty(), "decoded, or the problem is named");
  Require(header.tail.has_value() == header.tailProblem.empty(), "found, or the problem is named");
  Require(!header.decoded || header.tail, "what is decoded has a tail");
  Require(!header.decoded || header.decoded->partitions.size() <= 255, "as many as a byte counts");
  if (header.decoded) {
    const std::span<unsigned char, capsule::kHeaderSize> window(stored.data(),
                                                                capsule::kHeaderSize);
    static_cast<void>(capsule::JudgeSpareRecords(window, *header.decoded));
    const bool isCompleted = capsule::CompleteHeader(0x12345678, window).empty();
    const capsule::StoredHeader completed(stored);
    Require(completed.decoded.has_value(), "a completed header can be decoded");
    const size_t sections = capsule::SectionsOf(*header.decoded).size();
    Require(!isCompleted || completed.decoded->partitions.size() == sections, "and counts them");
    Require(isCompleted == (completed.decoded->indexOffset == 0x12345678) ||
                header.decoded->indexOffset == 0x12345678,
            "a header is completed as a whole");
  }

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
