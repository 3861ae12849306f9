// Which way the payload of a data block record is held: pure functions on its header.
//
// Record: _MiniHeader of type 3, then `Length` bytes of payload: the chunk in LZS form, or as it
// is. A chunk is up to 8192 bytes of a file (up to 65536 from other writers), padded with zeros to
// a multiple of 512.
#pragma once

#include <cstdint>

#include "capsule/partition/directory_records.h"

namespace capsule {

inline constexpr uint32_t kChunkSize = 8192;
inline constexpr uint32_t kChunkAlignment = 512;
inline constexpr uint32_t kCompressedChunkRoom = 12288;
inline constexpr uint32_t kMaxUncompressedLength = 65536;

// `n` rounded up to a multiple of 512.
inline uint32_t PaddedChunkLength(uint32_t n) {
  return (n + kChunkAlignment - 1) / kChunkAlignment * kChunkAlignment;
}

// Whether the payload is in LZS form: in a compressed image, unless Param is 0, equal to Length or
// all ones.
inline bool IsCompressedPayload(const _MiniHeader& header, bool imageIsCompressed) {
  return imageIsCompressed && header.Param != 0 && header.Param != header.Length &&
         header.Param != 0xFFFFFFFF;
}

// Payload bytes of a unit of `size` bytes for a chunk of `length`: one zero byte more when the two
// are equal, since that payload would be taken for the chunk itself. Decoders stop before it.
inline uint32_t StoredUnitLength(uint32_t size, uint32_t length) {
  return size == length ? size + 1 : size;
}

// Bytes that the record stands for.
inline uint32_t UncompressedLength(const _MiniHeader& header, bool imageIsCompressed) {
  return IsCompressedPayload(header, imageIsCompressed) ? header.Param : header.Length;
}

}  // namespace capsule
