// A header is restored before it is decoded, and decoded only when all of it is there. What is
// wrong with it is told in that order, so that each reader names the same fault.
#include "capsule/container/stored_header.h"

#include <algorithm>

#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"

namespace capsule {
namespace {

// Every writer begins the sector area with these two bytes.
bool HasSectorMark(HeaderBytes header) {
  const size_t area = SelectLayout(header) == HeaderLayout::Fixed
                          ? kHeaderSectorAreaOffset
                          : platform::LoadLe16(&header[kTailOffsetOffset]);
  return area + 2 <= header.size() && header[area] == 0xAB && header[area + 1] == 0xCD;
}

}  // namespace

StoredHeader::StoredHeader(std::span<const unsigned char> stored) : bytes(kHeaderSize) {
  std::copy_n(stored.begin(), std::min(stored.size(), bytes.size()), bytes.begin());
  const std::span<unsigned char, kHeaderSize> header(bytes.data(), kHeaderSize);
  isScrambled = header[kScrambleFlagOffset] == 1;
  isMarked = HasSectorMark(header);
  isComplete = stored.size() >= kHeaderSize;
  if (!isComplete) {
    tail = LocateTail(header, &tailProblem);
    problem = "not an image: " + std::to_string(stored.size()) + " bytes, a header alone has " +
              std::to_string(kHeaderSize);
    return;
  }
  RestoreScrambledRegion(header, &scrambleProblem);
  tail = LocateTail(header, &tailProblem);
  problem = scrambleProblem;
  if (problem.empty()) decoded = DecodeHeader(header, &problem);
}

std::string StoredHeader::WhyNotAnImage() const {
  return problem.empty() && !isMarked ? kNoHeaderMark : problem;
}

std::vector<uint8_t> SectionsOf(const DecodedHeader& header) {
  std::vector<uint8_t> ids;
  for (const _Partition& record : header.partitions) {
    if (IsInUse(record)) ids.push_back(record.SystemId);
  }
  return ids;
}

IndexPlace PlaceOfIndex(uint64_t indexOffset, uint64_t fileBytes) {
  if (indexOffset == 0) return IndexPlace::None;
  if (indexOffset < kHeaderSize) return IndexPlace::InHeader;
  return indexOffset < fileBytes ? IndexPlace::InFile : IndexPlace::BehindFile;
}

std::string JudgeSpareRecords(HeaderBytes stored, const DecodedHeader& header) {
  if (header.layout != HeaderLayout::Fixed || stored[kScrambleFlagOffset] == 1) return {};
  for (size_t i = header.partitions.size(); i < kMaxPartitions; ++i) {
    const auto record =
        stored.subspan(kPartitionRecordsOffset + i * kPartitionRecordSize, kPartitionRecordSize);
    if (std::any_of(record.begin(), record.end(), [](unsigned char byte) { return byte != 0; })) {
      return "partition record " + std::to_string(i) + " is not counted, but is not empty";
    }
  }
  return {};
}

std::string CompleteHeader(uint32_t indexOffset, std::span<unsigned char, kHeaderSize> stored) {
  const StoredHeader header(stored);
  if (!header.decoded) return header.problem;
  const auto& records = header.decoded->partitions;
  const size_t sections = SectionsOf(*header.decoded).size();
  if (records.size() != sections) {
    if (header.isScrambled) return "partition count cannot be corrected: header is scrambled";
    // Readers take the first records of the header for those of the sections.
    const auto end = records.begin() + static_cast<std::ptrdiff_t>(sections);
    if (header.decoded->layout != HeaderLayout::Fixed ||
        !std::all_of(records.begin(), end, IsInUse)) {
      return "partition count cannot be corrected: records do not follow each other";
    }
    stored[kPartitionCountOffset] = static_cast<unsigned char>(sections);
  }
  platform::StoreLe32(&stored[kIndexOffsetOffset], indexOffset);
  return {};
}

}  // namespace capsule
