#include "capsule/host/record_judge.h"

#include <vector>

#include "capsule/blocks/data_block_format.h"
#include "capsule/host/unit_decoder.h"
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

bool IsWholeDataRecord(std::span<const unsigned char> bytes, bool imageIsCompressed) {
  if (bytes.size() < kMiniHeaderSize || bytes[0] != kRecordDataBlock || bytes[1] > 1) return false;
  const _MiniHeader header = DecodeMiniHeader(bytes.first<kMiniHeaderSize>());
  if (header.Length > bytes.size() - kMiniHeaderSize) return false;
  if (!JudgeDataHeader(header, imageIsCompressed).empty()) return false;
  if (!IsCompressedPayload(header, imageIsCompressed)) return true;
  UnitDecoder decoder;
  decoder.Pretend(0);
  std::vector<unsigned char> chunk(header.Param);
  return decoder.Decode(bytes.subspan(kMiniHeaderSize, header.Length), chunk).empty();
}

}  // namespace capsule::host
