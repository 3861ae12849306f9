// The index of an image: 7 bytes that readers skip, then records without gaps up to the one whose
// offset + length reaches the index.
//
// Record: type (1). For types 2, 3, 5 and 6 then: name length (2), name, offset (4), length (4).
//   1 group mark   2, 3 file records   5 partition section   6 anything else   other: no body
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "capsule/platform/byte_reader.h"

namespace capsule {

inline constexpr uint8_t kIndexGroupMark = 1;
inline constexpr uint8_t kIndexFile = 2;
inline constexpr uint8_t kIndexZeroEntry = 3;
inline constexpr uint8_t kIndexSection = 5;
inline constexpr uint8_t kIndexNote = 6;
inline constexpr uint32_t kIndexPreamble = 7;

struct IndexRecord {
  uint8_t type = 0;
  std::string name;
  uint32_t offset = 0;
  uint32_t length = 0;
};

// Whether records of this type have a name, an offset and a length.
inline bool HasIndexBody(uint8_t type) {
  return type == kIndexFile || type == kIndexZeroEntry || type == kIndexSection ||
         type == kIndexNote;
}

// Appends the bytes of `record` to `out`. Names longer than 65535 bytes are cut.
void AppendIndexRecord(const IndexRecord& record, std::vector<unsigned char>* out);

// The next record; a reader that ends inside it has failed afterwards.
IndexRecord TakeIndexRecord(platform::ByteReader& reader);

// The same into `*record`, whose room for a name is used again.
void TakeIndexRecord(platform::ByteReader& reader, IndexRecord* record);

}  // namespace capsule
