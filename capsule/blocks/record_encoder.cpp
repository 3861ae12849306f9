#include "capsule/blocks/record_encoder.h"

#include <algorithm>

namespace capsule {
namespace {

constexpr int kLastFastLevel = 3;
constexpr int kLastMediumLevel = 6;

void Configure(StreamCompressor& compressor, int level) {
  if (level >= 1 && level <= kLastFastLevel) {
    compressor.SetFastCompression();
  } else if (level > kLastFastLevel && level <= kLastMediumLevel) {
    compressor.SetMediumCompression();
  } else {
    compressor.SetMaximumCompression();
  }
}

// Of a chunk of `length` bytes, padding and all, that is stored as it is.
_MiniHeader StoredHeader(uint8_t flag, uint32_t length) {
  return {kRecordDataBlock, flag, 0, static_cast<uint16_t>(length)};
}

}  // namespace

RecordEncoder::RecordEncoder(StreamCompressor& compressor, int level)
    : m_compressor(compressor), m_compresses(level != 0) {
  if (m_compresses) Configure(compressor, level);
}

std::span<const unsigned char> RecordEncoder::Encode(std::span<const unsigned char> padded,
                                                     _MiniHeader* header) {
  const auto length = static_cast<uint32_t>(padded.size());
  *header = StoredHeader(header->Flag, length);
  if (!m_compresses) {
    std::copy(padded.begin(), padded.end(), Payload().begin());
  } else {
    m_compressor.CompressBuffer(padded.data(), length, Payload().data(), kCompressedChunkRoom);
    const uint32_t size = m_compressor.GetCompressedSize();
    const uint32_t stored = StoredUnitLength(size, length);
    if (size == 0 || stored > kCompressedChunkRoom) return {};
    if (stored > size) Payload()[size] = 0;
    header->Param = length;
    header->Length = static_cast<uint16_t>(stored);
  }
  const auto bytes = EncodeMiniHeader(*header);
  std::copy(bytes.begin(), bytes.end(), m_record.begin());
  return std::span(m_record).first(kMiniHeaderSize + size_t{header->Length});
}

bool RecordEncoder::Append(std::span<const unsigned char> chunk, bool isLast,
                           std::vector<unsigned char>* out) {
  const uint32_t length = PaddedChunkLength(static_cast<uint32_t>(chunk.size()));
  _MiniHeader header = StoredHeader(isLast ? 1 : 0, length);
  if (!m_compresses) {
    const auto bytes = EncodeMiniHeader(header);
    out->insert(out->end(), bytes.begin(), bytes.end());
    out->insert(out->end(), chunk.begin(), chunk.end());
    out->resize(out->size() + length - chunk.size());
    return true;
  }
  std::array<unsigned char, kChunkSize> padded;
  if (length != chunk.size()) {
    std::fill(std::copy(chunk.begin(), chunk.end(), padded.begin()), padded.end(), uint8_t{0});
    chunk = std::span(padded).first(length);
  }
  const auto record = Encode(chunk, &header);
  out->insert(out->end(), record.begin(), record.end());
  return !record.empty();
}

}  // namespace capsule
