#include "capsule/host/records/record_judge.h"

#include <algorithm>
#include <vector>

#include "capsule/blocks/data_block_format.h"
#include "capsule/host/records/unit_decoder.h"
#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"

namespace capsule::host {

std::string JudgeDataHeader(const _MiniHeader& header, bool imageIsCompressed) {
  if (header.Flag > 1) return "flag is " + std::to_string(header.Flag) + ", not 0 or 1";
  const uint32_t length = UncompressedLength(header, imageIsCompressed);
  if (length == 0 || length > kMaxUncompressedLength || length % kChunkAlignment != 0) {
    return "chunk is " + std::to_string(length) +
           " bytes, multiples of 512 up to 65536 are possible";
  }
  return {};
}

std::optional<DataRecord> DecodeDataRecord(std::span<const unsigned char> bytes,
                                           bool imageIsCompressed, bool ntfs) {
  const uint32_t headerSize = ntfs ? kNtfsHeaderSize : kMiniHeaderSize;
  if (bytes.size() < headerSize) return std::nullopt;
  _MiniHeader header{};
  if (ntfs) {
    const _NTFSMiniHeader stored = DecodeNtfsHeader(bytes.first<kNtfsHeaderSize>());
    if (!IsNtfsData(stored.RecordType)) return std::nullopt;
    header = {kRecordDataBlock, stored.LastFlag, stored.UncompressedLength, stored.Length};
  } else {
    if (bytes[0] != kRecordDataBlock || bytes[1] > 1) return std::nullopt;
    header = DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
  }
  if (!JudgeDataHeader(header, imageIsCompressed).empty()) return std::nullopt;
  return DataRecord{headerSize, header.Length, UncompressedLength(header, imageIsCompressed),
                    IsCompressedPayload(header, imageIsCompressed), header.Flag == 1};
}

bool IsWholeDataRecord(std::span<const unsigned char> bytes, bool imageIsCompressed, bool ntfs) {
  const auto record = DecodeDataRecord(bytes, imageIsCompressed, ntfs);
  if (!record || record->Size() > bytes.size()) return false;
  if (!record->isCompressed) return true;
  UnitDecoder decoder;
  decoder.Pretend(0);
  std::vector<unsigned char> chunk(record->chunk);
  return decoder.Decode(bytes.subspan(record->headerSize, record->payload), chunk).empty();
}

uint64_t MostBytesIn(uint64_t room) {
  return std::min<uint64_t>(room * kMaxExpansion, static_cast<uint64_t>(kMaxImageSize));
}

std::string JudgeSize(uint64_t size, uint64_t room) {
  if (size <= MostBytesIn(room)) return {};
  const std::string stated = "its entry states " + std::to_string(size) + " bytes, but ";
  if (size > static_cast<uint64_t>(kMaxImageSize)) return stated + "files are below 2 GiB";
  return stated + std::to_string(room) + " bytes of records cannot hold them";
}

}  // namespace capsule::host
