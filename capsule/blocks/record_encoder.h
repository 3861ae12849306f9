// RecordEncoder turns the chunks of a file into data block records. Nothing in a record depends on
// where it will lie, so files, and parts of one, may be encoded side by side.
//
//   compressor.ResetCompressionHistory();
//   RecordEncoder encoder(compressor, 5);
//   std::vector<unsigned char> records;
//   while (NextChunk(&chunk)) encoder.Append(chunk, isLast, &records);
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "capsule/blocks/data_record.h"
#include "capsule/compression/stream_compressor.h"
#include "capsule/partition/record_format.h"

namespace capsule {

class RecordEncoder {
 public:
  // `compressor`, whose history goes on from record to record, must outlive the encoder. `level`: 0
  // stored, 1-3 fast, 4-6 medium, other maximum.
  RecordEncoder(StreamCompressor& compressor, int level);

  // Turns `padded`, a chunk with its padding, into a record with its header. `header` brings the
  // flag, and gets the rest. Nothing when it cannot be encoded; else valid until the next call.
  std::span<const unsigned char> Encode(std::span<const unsigned char> padded, _MiniHeader* header);

  // Appends the record of a chunk of up to kChunkSize bytes to `out`; false when it cannot be
  // encoded.
  bool Append(std::span<const unsigned char> chunk, bool isLast, std::vector<unsigned char>* out);

 private:
  std::span<unsigned char> Payload() { return std::span(m_record).subspan(kMiniHeaderSize); }

  StreamCompressor& m_compressor;
  bool m_compresses;
  std::array<unsigned char, kMiniHeaderSize + kCompressedChunkRoom> m_record;
};

}  // namespace capsule
