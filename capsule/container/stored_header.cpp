// A header is restored before it is decoded, and decoded only when all of it is there. What is
// wrong with it is told in that order, so that each reader names the same fault.
#include "capsule/container/stored_header.h"

#include <algorithm>

#include "capsule/container/header_scramble.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"

namespace capsule {
namespace {

constexpr size_t kCompactRecordSize = 40;
constexpr size_t kSectionCountInTail = 6;
constexpr size_t kScrambledInTail = 512;
constexpr size_t kScrambledBeforeRecords = 1544;
constexpr size_t kFixedScrambledLength = 1800;
constexpr size_t kBehindRecordsSize = 5;

std::string TerminatedText(std::span<const unsigned char> field) {
  return {field.begin(), std::find(field.begin(), field.end(), 0)};
}

std::string Number(size_t value) { return std::to_string(value); }

std::optional<HeaderTail> LocateCompactTail(HeaderBytes header, std::string* problem) {
  HeaderTail tail;
  tail.sectorArea = platform::LoadLe16(&header[kTailOffsetOffset]);
  tail.recordSize = kCompactRecordSize;
  tail.records = tail.At(kPartitionRecordsOffset);
  const bool fits = tail.records + kBehindRecordsSize <= header.size();
  if (tail.sectorArea >= kScrambleFlagOffset && fits) {
    tail.sectionCount = header[tail.sectorArea + kSectionCountInTail];
    tail.recordCount = header[tail.At(kPartitionCountOffset)];
    const size_t most = std::max(tail.sectionCount, tail.recordCount);
    if (tail.records + kCompactRecordSize * most + kBehindRecordsSize <= header.size()) return tail;
    *problem = "header claims " + Number(most) + " partitions behind " + Number(tail.sectorArea) +
               ", it is " + Number(header.size()) + " bytes long";
  } else {
    *problem = "header's second part is said to begin at " + Number(tail.sectorArea);
  }
  return std::nullopt;
}

// The bytes that may be scrambled. The number of sections lies in front of them.
std::optional<std::span<unsigned char>> ScrambledRegion(
    std::span<unsigned char, kHeaderSize> header, std::string* problem) {
  if (SelectLayout(header) == HeaderLayout::Fixed) {
    return header.subspan(kHeaderSectorAreaOffset + kScrambledInTail, kFixedScrambledLength);
  }
  const size_t tail = platform::LoadLe16(&header[kTailOffsetOffset]);
  const size_t start = tail + kScrambledInTail;
  if (tail >= kScrambleFlagOffset && start + kScrambledBeforeRecords <= header.size()) {
    const size_t length =
        kScrambledBeforeRecords + kCompactRecordSize * header[tail + kSectionCountInTail];
    if (start + length <= header.size()) return header.subspan(start, length);
  }
  *problem = "scrambled part of the header, from " + Number(start) + " on, leaves it";
  return std::nullopt;
}

bool RestoreScrambledRegion(std::span<unsigned char, kHeaderSize> header, std::string* problem) {
  constexpr unsigned char kScrambled = 1;
  constexpr size_t kKeySize = 36;
  constexpr int kRestore = 1;
  if (header[kScrambleFlagOffset] != kScrambled) return true;
  const auto region = ScrambledRegion(header, problem);
  if (!region) return false;
  const std::string key = TerminatedText(header.subspan(kScrambleFlagOffset + 1, kKeySize));
  HeaderScramble(region->data(), key.c_str(), static_cast<int>(region->size()), kRestore);
  return true;
}

std::optional<HeaderTail> LocateTail(HeaderBytes header, std::string* problem) {
  if (SelectLayout(header) == HeaderLayout::Compact) return LocateCompactTail(header, problem);
  HeaderTail tail;
  tail.recordCount = header[kPartitionCountOffset];
  tail.sectionCount = tail.recordCount;
  if (tail.recordCount <= kMaxPartitions) return tail;
  *problem = "header claims " + Number(tail.recordCount) + " partitions, room is for " +
             Number(kMaxPartitions);
  return std::nullopt;
}

std::optional<DecodedHeader> DecodeHeader(HeaderBytes header, std::string* problem) {
  const std::optional<HeaderTail> tail = LocateTail(header, problem);
  if (!tail) return std::nullopt;
  DecodedHeader decoded;
  decoded.tail = *tail;
  decoded.layout = SelectLayout(header);
  decoded.version = TerminatedText(header.first<kVersionSize>());
  decoded.indexOffset = platform::LoadLe32(&header[kIndexOffsetOffset]);
  decoded.compressed = header[tail->At(kCompressionFlagOffset)] != 0;
  for (size_t i = 0; i < tail->sectionCount; ++i) {
    const auto record = header.subspan(tail->records + i * tail->recordSize);
    decoded.partitions.push_back(DecodePartition(record.first<kPartitionRecordSize>()));
  }
  return decoded;
}

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
