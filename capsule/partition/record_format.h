// The bytes of the records of a partition section: pure functions between bytes and values.
//
// Section, in order: partition header (2056), then items, then partition trailer (1544).
// Item: zero entries that close levels, then the record group (long-name records, short entry),
// then for a file its data block records.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "capsule/partition/directory_records.h"
#include "capsule/partition/partition_record.h"

namespace capsule {

inline constexpr uint8_t kRecordDataBlock = 3;
inline constexpr uint8_t kRecordDirectory = 0x16;
inline constexpr uint8_t kRecordPartition = 0x17;

inline constexpr uint32_t kMiniHeaderSize = 8;
inline constexpr uint32_t kDirEntrySize = 32;
inline constexpr uint32_t kDirRecordSize = kMiniHeaderSize + kDirEntrySize;  // 40
inline constexpr uint32_t kSectorAreaSize = 512;
inline constexpr uint16_t kPartitionPayload = 1536;
inline constexpr uint32_t kPartitionHeaderSize = 2056;
inline constexpr uint32_t kPartitionTrailerSize = 1544;

// In front of every directory record, and of the records that begin and end a section.
inline constexpr std::array<unsigned char, kMiniHeaderSize> kEntryHeader{
    kRecordDirectory, 1, 0, 0, 0, 0, kDirEntrySize, 0};
inline constexpr std::array<unsigned char, kMiniHeaderSize> kAreaHeader{
    kRecordPartition, 0, 0, 0, 0, 0, 0, kPartitionPayload >> 8};

// The largest image: offsets are signed 32-bit values.
inline constexpr int64_t kMaxImageSize = 0x7FFFFFFF;

// Whether `size` bytes of records at `offset` leave room for the partition trailer that must
// follow.
inline bool FitsImage(int64_t offset, int64_t size) {
  return offset >= 0 && size >= 0 && offset <= kMaxImageSize - kPartitionTrailerSize - size;
}

// Adds `bytes` to a running counter; false, and nothing added, when it would pass 2^31-1 or there
// is no counter.
inline bool Advance(int* counter, int64_t bytes) {
  if (counter == nullptr) return false;
  const int64_t sum = *counter + bytes;
  if (sum > kMaxImageSize) return false;
  *counter = static_cast<int>(sum);
  return true;
}

// The first byte of a stored short name that begins with 0xE5: FAT marks erased entries by that.
inline constexpr uint8_t kStandsForE5 = 0x05;

inline constexpr uint8_t kLongNameAttribute = 0x0F;
inline constexpr uint8_t kDirectoryAttribute = 0x10;
inline constexpr int kMaxLongNamePieces = 63;
inline constexpr size_t kPieceUnits = 13;
inline constexpr size_t kPieceNameBytes = 2 * kPieceUnits;

std::array<unsigned char, 8> EncodeMiniHeader(const _MiniHeader& header);
_MiniHeader DecodeMiniHeader(std::span<const unsigned char, 8> bytes);

std::array<unsigned char, 32> EncodeShortEntry(const _ShortDirEntry& entry);
_ShortDirEntry DecodeShortEntry(std::span<const unsigned char, 32> bytes);

std::array<unsigned char, 24> EncodePartition(const _Partition& record);
_Partition DecodePartition(std::span<const unsigned char, 24> bytes);

// Whether a partition has this record: others are all zero, and have no section.
bool IsInUse(const _Partition& record);

// A zero entry with its header: closes one directory level.
std::array<unsigned char, kDirRecordSize> EncodeZeroEntry();

std::array<unsigned char, kPartitionHeaderSize> EncodePartitionHeader();
std::array<unsigned char, kPartitionTrailerSize> EncodePartitionTrailer();

// The FAT checksum of an 11-byte short name.
uint8_t ShortNameChecksum(std::span<const unsigned char, 11> name);

// The 26 name bytes of a long-name record, units in order.
std::array<unsigned char, 26> LongNameUnits(std::span<const unsigned char, 32> record);

// The name held by long-name units in on-disk piece order (a multiple of 26 bytes, last piece
// first): every unit up to the terminator or padding, in name order.
std::u16string DecodeLongName(std::span<const unsigned char> piecesLastFirst);

// The name bytes of the same: one byte a unit when every unit is below 256, else UTF-8.
std::string LongNameToBytes(std::span<const unsigned char> piecesLastFirst);

// UTF-8 of UTF-16 units; surrogates that stand alone become U+FFFD.
std::string Utf16ToUtf8(std::u16string_view units);

// Short name as text for people: name, then '.' and extension when there is one; only trailing
// blanks of each are trimmed. A first byte of 0x05 stands for 0xE5.
std::string ShortNameToBytes(const _ShortDirEntry& entry);

}  // namespace capsule
