// The data records of files, in FAT-style sections and in those of NTFS records: what a header
// says, whether that can be so, and what may follow. Pure functions on bytes.
//
// Record: _MiniHeader of type 3, or _NTFSMiniHeader of type 106 or 107, then `Length` bytes of
// payload: the chunk in LZS form, or as it is. A chunk is up to 8192 bytes of a file (up to 65536
// from other writers), padded with zeros to a multiple of 512.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

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

// Which records a section consists of.
enum class RecordKind { Fat, Ntfs };

// What the bytes of data records depend on beside themselves.
struct RecordRules {
  RecordKind kind = RecordKind::Fat;
  bool imageIsCompressed = false;

  bool IsNtfs() const { return kind == RecordKind::Ntfs; }
  uint32_t HeaderSize() const;
};

// A data record as its header has it.
struct DataRecord {
  uint32_t headerSize = 0;
  uint32_t payload = 0;  // bytes behind the header
  uint32_t chunk = 0;    // bytes of the file that they stand for
  bool isCompressed = false;
  uint8_t flag = 0;

  bool IsLast() const { return flag == 1; }
  uint32_t Size() const { return headerSize + payload; }

  // Whether another record of the same file can follow.
  bool MayGoOn() const;
};

// The record of this header, whatever its type and fields are.
DataRecord DataRecordOf(const _MiniHeader& header, const RecordRules& rules);

// What is wrong with the flag or the length of a data record, or nothing.
std::string JudgeDataRecord(const DataRecord& record);

// The record whose header `bytes` begin with; none when they are too few, it is not of data, or it
// breaks a rule.
std::optional<DataRecord> DecodeDataRecord(std::span<const unsigned char> bytes,
                                           const RecordRules& rules);

// What is wrong with the place of a record that begins at byte `begin` of a file of `size` bytes,
// or nothing: records cover the size exactly, and the one that reaches it, and no other, is marked
// as the last. In NTFS partitions the padding may fill the record.
std::string JudgeCoverage(const DataRecord& record, uint64_t begin, uint64_t size,
                          const RecordRules& rules);

}  // namespace capsule
