#include "capsule/container/header_format.h"

#include <algorithm>
#include <memory>
#include <string_view>

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

_PartitionNode* MakeChain(const std::vector<_Partition>& records) {
  _PartitionNode* next = nullptr;
  for (auto record = records.rbegin(); record != records.rend(); ++record) {
    auto node = std::make_unique<_PartitionNode>();
    node->Record = *record;
    node->Next = next;
    next = node.release();
  }
  return next;
}

std::optional<DecodedHeader> Refuse(std::string* problem, const std::string& reason) {
  *problem = reason;
  return std::nullopt;
}

}  // namespace

HeaderLayout SelectLayout(HeaderBytes header) {
  const uint16_t tailOffset = platform::LoadLe16(header.subspan<kTailOffsetOffset, 2>().data());
  if (tailOffset == 0 || BeginsWithSignature(header)) return HeaderLayout::Fixed;
  return HeaderLayout::Compact;
}

std::optional<DecodedHeader> DecodeHeader(HeaderBytes header, std::string* problem) {
  DecodedHeader decoded;
  decoded.layout = SelectLayout(header);
  if (decoded.layout == HeaderLayout::Compact) {
    return Refuse(problem, "compact header layout is not supported");
  }
  if (header[kScrambleFlagOffset] == 1) {
    return Refuse(problem, "scrambled header is not supported");
  }
  decoded.version = TerminatedText(header.first<kVersionSize>());
  decoded.indexOffset = platform::LoadLe32(header.subspan<kIndexOffsetOffset, 4>().data());
  decoded.compressed = header[kCompressionFlagOffset] != 0;

  const size_t count = header[kPartitionCountOffset];
  if (count > kMaxPartitions) {
    return Refuse(problem, "header claims " + std::to_string(count) + " partitions, room is for " +
                               std::to_string(kMaxPartitions));
  }
  for (size_t i = 0; i < count; ++i) {
    const auto record = header.subspan(kPartitionRecordsOffset + i * kPartitionRecordSize)
                            .first<kPartitionRecordSize>();
    decoded.partitions.push_back(DecodePartition(record));
  }
  return decoded;
}

// The decoded header is the stored one with a pointer in the place of the partition records.
void FillImageHeader(HeaderBytes header, const DecodedHeader& decoded, _NewImageHeader* out) {
  constexpr size_t kChain = offsetof(_NewImageHeader, Partitions);
  constexpr size_t kBehindChain = offsetof(_NewImageHeader, Opaque7296);
  static_assert(kChain == offsetof(_ImageHeader, Partitions));
  constexpr size_t kBehindRecords = offsetof(_ImageHeader, Opaque7296);
  static_assert(sizeof(_NewImageHeader) - kBehindChain == kHeaderSize - kBehindRecords);

  ReleasePartitionChain(out);
  auto* bytes = static_cast<unsigned char*>(static_cast<void*>(out));
  std::copy_n(header.begin(), kChain, bytes);
  std::copy(header.begin() + kBehindRecords, header.end(), bytes + kBehindChain);
  out->Opaque5516 = platform::LoadLe32(&header[offsetof(_ImageHeader, Opaque5516)]);
  out->Opaque7313 = platform::LoadLe32(&header[offsetof(_ImageHeader, Opaque7313)]);
  out->Partitions = MakeChain(decoded.partitions);
}

void ReleasePartitionChain(_NewImageHeader* header) {
  _PartitionNode* node = header->Partitions;
  while (node != nullptr) {
    const std::unique_ptr<_PartitionNode> current(node);
    node = current->Next;
  }
  header->Partitions = nullptr;
}

}  // namespace capsule
