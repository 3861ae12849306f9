// Images of one section around the bytes that a fuzzer makes.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::fuzz {

using Bytes = std::vector<uint8_t>;

inline void Append(std::span<const uint8_t> bytes, Bytes* to) {
  to->insert(to->end(), bytes.begin(), bytes.end());
}

// A header and the beginning of a section of this kind.
inline Bytes BeginImage(uint8_t systemId, bool compressed) {
  Bytes image;
  Append(EncodeHeader("fuzz", compressed), &image);
  image[kPartitionRecordsOffset + 2] = systemId;
  image[kPartitionCountOffset] = 1;
  Append(EncodePartitionHeader(), &image);
  return image;
}

}  // namespace capsule::fuzz
