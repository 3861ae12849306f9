// Where things lie in the stored header, and how it becomes values: pure functions.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "capsule/container/header_records.h"
#include "capsule/partition/partition_record.h"

namespace capsule {

inline constexpr uint32_t kHeaderSize = 7560;
inline constexpr uint32_t kVersionSize = 256;
inline constexpr uint32_t kScrambleFlagOffset = 656;
inline constexpr uint32_t kIndexOffsetOffset = 715;
inline constexpr uint32_t kCompressionMarkOffset = 719;
inline constexpr uint32_t kConstant3Offset = 720;
inline constexpr uint32_t kTailOffsetOffset = 721;
inline constexpr uint32_t kHeaderSectorAreaOffset = 5000;
inline constexpr uint32_t kPartitionCountOffset = 5513;
inline constexpr uint32_t kCompressionFlagOffset = 5515;
inline constexpr uint32_t kPartitionRecordsOffset = 7056;
inline constexpr uint32_t kPartitionRecordSize = 24;
inline constexpr int kMaxPartitions = 10;

// Begins the version of an image, in any letter case.
inline constexpr std::string_view kSignature = "Capsulate";

// Layouts of the stored header. Fixed: tail offset 0, or a version that begins with the signature.
// Compact: everything else.
enum class HeaderLayout { Fixed, Compact };

using HeaderBytes = std::span<const unsigned char, kHeaderSize>;

HeaderLayout SelectLayout(HeaderBytes header);

// Where a header keeps what follows its middle: the fixed layout has it at 5000, the compact one
// where the tail offset says.
struct HeaderTail {
  size_t sectorArea = kHeaderSectorAreaOffset;
  size_t records = kPartitionRecordsOffset;
  size_t recordSize = kPartitionRecordSize;
  size_t recordCount = 0;   // records in the chain
  size_t sectionCount = 0;  // sections to read; the compact layout states it by itself

  size_t At(size_t fixedOffset) const { return sectorArea + fixedOffset - kHeaderSectorAreaOffset; }
  size_t BehindRecords() const { return records + recordSize * recordCount; }
};

// What readers need of a header, checked.
struct DecodedHeader {
  std::string version;  // up to the terminator, at most 256 bytes
  HeaderLayout layout = HeaderLayout::Fixed;
  uint32_t indexOffset = 0;
  bool compressed = false;             // the compression flag is not 0
  std::vector<_Partition> partitions;  // as many as there are sections to read
  HeaderTail tail;
};

// Fills the header that hosts see. The chain of partition records that it had before is released.
void FillImageHeader(HeaderBytes header, const DecodedHeader& decoded, _NewImageHeader* out);
void ReleasePartitionChain(_NewImageHeader* header);

// Puts what a new image starts with into `header`: version (up to 255 bytes), compression, sector
// area. Other bytes stay; the mark at 719 stays when the image is not compressed.
void FillHeader(const std::string& version, bool compressed,
                std::span<unsigned char, kHeaderSize> header);

// FillHeader on zeros: the header as written first.
std::vector<unsigned char> EncodeHeader(const std::string& version, bool compressed);

}  // namespace capsule
