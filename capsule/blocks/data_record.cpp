// Headers of NTFS sections are first turned into those of FAT-style sections, so every rule about
// flag, chunk and coverage stands here once for both kinds.
#include "capsule/blocks/data_record.h"

#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule {
namespace {

bool IsPossibleChunk(uint32_t length) { return length != 0 && length <= kMaxUncompressedLength; }

bool IsSound(const DataRecord& record) {
  return record.flag <= 1 && IsPossibleChunk(record.chunk) && record.chunk % kChunkAlignment == 0;
}

// The header as one of a FAT-style section; none when it is not of data.
std::optional<_MiniHeader> DataHeaderOf(std::span<const unsigned char> bytes, RecordKind kind) {
  if (kind == RecordKind::Ntfs) {
    const _NTFSMiniHeader header = DecodeNtfsHeader(bytes.first<kNtfsHeaderSize>());
    if (!IsNtfsData(header.RecordType)) return std::nullopt;
    return _MiniHeader{kRecordDataBlock, header.LastFlag, header.UncompressedLength, header.Length};
  }
  if (bytes[0] != kRecordDataBlock) return std::nullopt;
  return DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
}

}  // namespace

uint32_t RecordRules::HeaderSize() const { return IsNtfs() ? kNtfsHeaderSize : kMiniHeaderSize; }

bool DataRecord::MayGoOn() const { return !IsLast() && IsPossibleChunk(chunk); }

DataRecord DataRecordOf(const _MiniHeader& header, const RecordRules& rules) {
  return {rules.HeaderSize(), header.Length, UncompressedLength(header, rules.imageIsCompressed),
          IsCompressedPayload(header, rules.imageIsCompressed), header.Flag};
}

std::string JudgeDataRecord(const DataRecord& record) {
  if (IsSound(record)) return {};
  if (record.flag > 1) return "flag is " + std::to_string(record.flag) + ", not 0 or 1";
  return "chunk is " + std::to_string(record.chunk) +
         " bytes, multiples of 512 up to 65536 are possible";
}

std::optional<DataRecord> DecodeDataRecord(std::span<const unsigned char> bytes,
                                           const RecordRules& rules) {
  if (bytes.size() < rules.HeaderSize()) return std::nullopt;
  const auto header = DataHeaderOf(bytes, rules.kind);
  if (!header) return std::nullopt;
  const DataRecord record = DataRecordOf(*header, rules);
  return IsSound(record) ? std::optional(record) : std::nullopt;
}

std::string JudgeCoverage(const DataRecord& record, uint64_t begin, uint64_t size,
                          const RecordRules& rules) {
  if (!IsPossibleChunk(record.chunk)) {
    return "chunk is " + std::to_string(record.chunk) + " bytes, 1 to " +
           std::to_string(kMaxUncompressedLength) + " are possible";
  }
  if (rules.IsNtfs()) return {};
  const uint64_t end = begin + record.chunk;
  const bool reachesEnd = end >= size;
  if (reachesEnd != record.IsLast()) {
    return (reachesEnd ? "not marked as the last" : "marked as the last") +
           std::string(" record, but ends at ") + std::to_string(end) + " of " +
           std::to_string(size) + " bytes";
  }
  if (reachesEnd && end - size >= kChunkAlignment) {
    return "last record ends at " + std::to_string(end) + ", the file at " + std::to_string(size);
  }
  return {};
}

}  // namespace capsule
