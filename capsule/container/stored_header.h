// The header at the start of an image, as every reader takes it: restored, decoded and judged by
// pure functions, whatever its bytes are and however few of them there are.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "capsule/container/header_format.h"

namespace capsule {

struct StoredHeader {
  // `stored`: the bytes from the start of a file on.
  explicit StoredHeader(std::span<const unsigned char> stored);

  HeaderBytes Bytes() const { return HeaderBytes(bytes.data(), kHeaderSize); }

  // The same as `problem`, but also of headers that no writer makes. Empty for that of an image.
  std::string WhyNotAnImage() const;

  std::vector<unsigned char> bytes;  // 7560, restored where that can be done, then zeros
  bool isComplete = false;           // all 7560 were there
  bool isScrambled = false;          // was, as stored
  bool isMarked = false;             // the sector area begins as that of every writer
  std::string scrambleProblem;       // why it could not be restored
  std::optional<HeaderTail> tail;    // of what there is
  std::string tailProblem;           // why there is none
  std::optional<DecodedHeader> decoded;
  std::string problem;  // why it is not decoded; empty if it is
};

inline constexpr const char* kNoHeaderMark = "not an image: no image header at its start";

// System ids of the sections that a header tells of: its records that are not all zero.
std::vector<uint8_t> SectionsOf(const DecodedHeader& header);

// Where the index is said to begin, in a file of `fileBytes`.
enum class IndexPlace { None, InHeader, InFile, BehindFile };
IndexPlace PlaceOfIndex(uint64_t indexOffset, uint64_t fileBytes);

// What is wrong with the partition records behind those that the header counts, which are to be
// empty; nothing where they cannot be told. `stored`: the bytes of the header as they are.
std::string JudgeSpareRecords(HeaderBytes stored, const DecodedHeader& header);

// Puts the offset of the index into the header, in place, and makes it count the sections that its
// records tell of. Why it cannot; empty on success.
std::string CompleteHeader(uint32_t indexOffset, std::span<unsigned char, kHeaderSize> stored);

}  // namespace capsule
