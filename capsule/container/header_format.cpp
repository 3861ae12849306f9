// The header that hosts see is the stored one in the fixed layout, with a pointer where the
// partition records were. It is filled by copying the stretches in front of and behind that place,
// so that bytes without a known meaning are kept.
#include "capsule/container/header_format.h"

#include <algorithm>
#include <memory>

#include "capsule/partition/record_format.h"
#include "capsule/platform/ascii.h"
#include "capsule/platform/little_endian.h"

namespace capsule {
namespace {

bool BeginsWithSignature(HeaderBytes header) {
  const std::string beginning(header.begin(), header.begin() + kSignature.size());
  return platform::EqualIgnoringCase(beginning, kSignature);
}

constexpr size_t kCompactExtra = 28;  // bytes of a record from here on are kept for the host
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

}  // namespace

HeaderLayout SelectLayout(HeaderBytes header) {
  const uint16_t tailOffset = platform::LoadLe16(header.subspan<kTailOffsetOffset, 2>().data());
  if (tailOffset == 0 || BeginsWithSignature(header)) return HeaderLayout::Fixed;
  return HeaderLayout::Compact;
}

// What a compact header does not have is zero.
void FillImageHeader(HeaderBytes header, const DecodedHeader& decoded, _NewImageHeader* out) {
  constexpr size_t kChain = offsetof(_NewImageHeader, Partitions);
  constexpr size_t kBehindChain = offsetof(_NewImageHeader, Opaque7296);
  static_assert(kChain == offsetof(_ImageHeader, Partitions));
  constexpr size_t kBehindRecords = offsetof(_ImageHeader, Opaque7296);
  static_assert(sizeof(_NewImageHeader) - kBehindChain == kHeaderSize - kBehindRecords);

  ReleasePartitionChain(out);
  *out = _NewImageHeader{};
  const HeaderTail& tail = decoded.tail;
  const std::span bytes(static_cast<unsigned char*>(static_cast<void*>(out)), sizeof *out);
  std::copy_n(header.begin(), std::min<size_t>(tail.sectorArea, kHeaderSectorAreaOffset),
              bytes.begin());
  const auto from = header.subspan(tail.sectorArea, kChain - kHeaderSectorAreaOffset);
  std::copy(from.begin(), from.end(), bytes.begin() + kHeaderSectorAreaOffset);
  out->Opaque5516 = platform::LoadLe32(&header[tail.At(offsetof(_ImageHeader, Opaque5516))]);

  size_t behind = tail.BehindRecords();
  if (decoded.layout == HeaderLayout::Fixed) {
    std::copy(header.begin() + kBehindRecords, header.end(), bytes.begin() + kBehindChain);
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
