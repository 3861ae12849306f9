#include "capsule/container/header_format.h"

#include <algorithm>
#include <memory>
#include <string_view>

#include "capsule/container/header_scramble.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/ascii.h"
#include "capsule/platform/little_endian.h"

namespace capsule {
namespace {

constexpr std::string_view kSignature = "Capsulate";

bool BeginsWithSignature(HeaderBytes header) {
  const std::string beginning(header.begin(), header.begin() + kSignature.size());
  return platform::EqualIgnoringCase(beginning, kSignature);
}

std::string TerminatedText(std::span<const unsigned char> field) {
  return {field.begin(), std::find(field.begin(), field.end(), 0)};
}

constexpr size_t kCompactRecordSize = 40;
constexpr size_t kCompactExtra = 28;  // bytes of a record from here on are kept for the host
constexpr size_t kSectionCountInTail = 6;
constexpr size_t kScrambledInTail = 512;
constexpr size_t kScrambledBeforeRecords = 1544;
constexpr size_t kFixedScrambledLength = 1800;
constexpr size_t kBehindRecordsSize = 5;
constexpr unsigned char kSectorAreaMark[] = {0xAB, 0xCD};

// Bytes that a record keeps behind the partition's own.
void TakeExtra(std::span<const unsigned char> stored, _PartitionNode* node) {
  if (stored.size() <= kCompactExtra) return;
  std::copy(stored.begin() + kCompactExtra, stored.end(), node->Extra);
}

_PartitionNode* MakeChain(HeaderBytes header, const HeaderTail& tail) {
  _PartitionNode* next = nullptr;
  for (size_t i = tail.recordCount; i > 0; --i) {
    const auto stored = header.subspan(tail.records + (i - 1) * tail.recordSize, tail.recordSize);
    auto node = std::make_unique<_PartitionNode>();
    node->Record = DecodePartition(stored.first<kPartitionRecordSize>());
    TakeExtra(stored, node.get());
    node->Next = next;
    next = node.release();
  }
  return next;
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

}  // namespace

HeaderLayout SelectLayout(HeaderBytes header) {
  const uint16_t tailOffset = platform::LoadLe16(header.subspan<kTailOffsetOffset, 2>().data());
  if (tailOffset == 0 || BeginsWithSignature(header)) return HeaderLayout::Fixed;
  return HeaderLayout::Compact;
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

// The decoded header is the stored one in the fixed layout, with a pointer in the place of the
// partition records. What a compact header does not have is zero.
void FillImageHeader(HeaderBytes header, const DecodedHeader& decoded, _NewImageHeader* out) {
  constexpr size_t kChain = offsetof(_NewImageHeader, Partitions);
  constexpr size_t kBehindChain = offsetof(_NewImageHeader, Opaque7296);
  static_assert(kChain == offsetof(_ImageHeader, Partitions));
  constexpr size_t kBehindRecords = offsetof(_ImageHeader, Opaque7296);
  static_assert(sizeof(_NewImageHeader) - kBehindChain == kHeaderSize - kBehindRecords);

  ReleasePartitionChain(out);
  *out = _NewImageHeader{};
  const HeaderTail& tail = decoded.tail;
  auto* bytes = static_cast<unsigned char*>(static_cast<void*>(out));
  std::copy_n(header.begin(), std::min<size_t>(tail.sectorArea, kHeaderSectorAreaOffset), bytes);
  const auto from = header.subspan(tail.sectorArea, kChain - kHeaderSectorAreaOffset);
  std::copy(from.begin(), from.end(), bytes + kHeaderSectorAreaOffset);
  out->Opaque5516 = platform::LoadLe32(&header[tail.At(offsetof(_ImageHeader, Opaque5516))]);

  size_t behind = tail.BehindRecords();
  if (decoded.layout == HeaderLayout::Fixed) {
    std::copy(header.begin() + kBehindRecords, header.end(), bytes + kBehindChain);
    behind = offsetof(_ImageHeader, Opaque7312);
  }
  out->Opaque7312 = header[behind];
  out->Opaque7313 = platform::LoadLe32(&header[behind + 1]);
  out->Partitions = MakeChain(header, tail);
}

void ReleasePartitionChain(_NewImageHeader* header) {
  _PartitionNode* node = header->Partitions;
  while (node != nullptr) {
    const std::unique_ptr<_PartitionNode> current(node);
    node = current->Next;
  }
  header->Partitions = nullptr;
}

void FillHeader(const std::string& version, bool compressed,
                std::span<unsigned char, kHeaderSize> header) {
  const size_t length = std::min<size_t>(version.size(), kVersionSize - 1);
  std::copy_n(version.begin(), length, header.begin());
  header[length] = 0;

  const auto area = header.subspan(kHeaderSectorAreaOffset, kSectorAreaSize);
  std::fill(area.begin(), area.end(), static_cast<unsigned char>(0));
  std::copy(std::begin(kSectorAreaMark), std::end(kSectorAreaMark), area.begin());

  header[kPartitionCountOffset] = 0;
  header[kConstant3Offset] = 3;
  header[kCompressionFlagOffset] = compressed ? 1 : 0;
  if (compressed) header[kCompressionMarkOffset] = 2;
}

std::vector<unsigned char> EncodeHeader(const std::string& version, bool compressed) {
  std::vector<unsigned char> header(kHeaderSize);
  FillHeader(version, compressed, std::span<unsigned char, kHeaderSize>(header));
  return header;
}

}  // namespace capsule
