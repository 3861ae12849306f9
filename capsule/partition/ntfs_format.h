// The bytes of NTFS partitions: record headers, FILE records and index blocks, as pure functions
// over windows of exactly the payload.
//
// Every walk ends at its record or attribute; an attribute shorter than its header, or reaching
// beyond its record, ends the walk.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "capsule/partition/directory_records.h"
#include "capsule/partition/ntfs_records.h"

namespace capsule {

inline constexpr uint32_t kNtfsHeaderSize = 46;
inline constexpr uint32_t kNtfsDirectoryRecord = 102;  // FILE record of a directory
inline constexpr uint32_t kNtfsFileRecord = 104;       // FILE record that begins a file
inline constexpr uint32_t kNtfsLastFileRecord = 105;   // 103 and 105: further FILE records
inline constexpr uint32_t kNtfsData = 106;             // data of a file, index of a directory
inline constexpr uint32_t kNtfsMoreData = 107;
inline constexpr uint32_t kNtfsEnd = 108;  // no more records in the section
inline constexpr size_t kFileRecordSize = 1024;
inline constexpr uint32_t kNtfsChunkSize = 16384;

_NTFSMiniHeader DecodeNtfsHeader(std::span<const unsigned char, kNtfsHeaderSize> bytes);

// The fields that records of both kinds of sections have.
_MiniHeader ToMiniHeader(const _NTFSMiniHeader& header);

// Bytes from one record to the next.
inline uint32_t NtfsRecordSize(const _NTFSMiniHeader& header) {
  return kNtfsHeaderSize + header.Length;
}

// Types that begin the next entry of a section.
inline bool BeginsNtfsEntry(uint32_t type) {
  return type == kNtfsDirectoryRecord || type == kNtfsFileRecord || type == kNtfsEnd;
}
inline bool IsNtfsFileRecord(uint32_t type) {
  return type >= kNtfsDirectoryRecord && type <= kNtfsLastFileRecord;
}
// Further FILE records of an entry: they may lie between its data.
inline bool IsNtfsCompanion(uint32_t type) {
  return IsNtfsFileRecord(type) && !BeginsNtfsEntry(type);
}
// Records of other types are stepped over.
inline bool IsNtfsType(uint32_t type) { return type >= kNtfsDirectoryRecord && type <= kNtfsEnd; }
inline bool IsNtfsData(uint32_t type) { return type == kNtfsData || type == kNtfsMoreData; }

// Attribute types of FILE records.
inline constexpr uint32_t kStandardInformationType = 0x10;
inline constexpr uint32_t kAttributeListType = 0x20;
inline constexpr uint32_t kFileNameType = 0x30;
inline constexpr uint32_t kDataType = 0x80;
inline constexpr uint32_t kIndexRootType = 0x90;
inline constexpr uint32_t kBitmapType = 0xB0;

// One attribute of a FILE record: `bytes` are all of it, header included.
struct NtfsAttribute {
  uint32_t type = 0;
  bool nonResident = false;
  uint8_t nameLength = 0;  // units; 0 for an unnamed attribute
  std::span<const unsigned char> bytes;

  // The value of a $STANDARD_INFORMATION or $FILE_NAME attribute: from the name offset on when
  // that lies inside the attribute, else from the value offset.
  std::span<const unsigned char> NamedOffsetValue() const;

  // The resident value by its own length and offset; empty when they do not fit.
  std::span<const unsigned char> ResidentValue() const;

  // Whether this is the part of its stream that states the size: parts of a stream that is spread
  // over several attributes say which cluster they begin with.
  bool BeginsStream() const;

  // Low 32 bits of the size of a $DATA attribute.
  uint32_t DataSize() const;
};

// Restores the bytes that the update sequence displaced, in place. Records that state a plausible
// layout are taken at their word; others have their sequence at 42.
void UndoFileRecordFixups(std::span<unsigned char, kFileRecordSize> record);

// The number of a FILE record in its volume, the low 32 bits of references to it; later systems
// store it in the record.
std::optional<uint32_t> StatedRecordNumber(std::span<const unsigned char, kFileRecordSize> record);

// Hands out the attributes in order until `visit` returns false. The first lies where the record
// says when it states a plausible layout, else at 48.
void VisitAttributes(std::span<const unsigned char, kFileRecordSize> record,
                     const std::function<bool(const NtfsAttribute&)>& visit);

// Low 32 bits of the references to children held by an $INDEX_ROOT attribute, in order; the entry
// of a directory for itself is left out.
void VisitIndexRoot(const NtfsAttribute& attribute, const std::function<void(uint32_t)>& visit);

// Which blocks of a folder's index are in use: a block that was given back keeps its old entries.
// Without a bitmap all are.
class NtfsIndexUse {
 public:
  // Takes what an $INDEX_ROOT or $BITMAP of the folder tells; leaves others alone.
  void Take(const NtfsAttribute& attribute);

  // `position`: as an index block states its own, in units of the volume.
  bool InUse(uint64_t position) const;

 private:
  uint8_t m_nUnitsPerBlock = 0;
  std::vector<unsigned char> m_Bitmap;
};

// The same for index blocks ("INDX", 2048 or 4096 bytes each); restores displaced bytes in place.
void VisitIndexBlocks(std::span<unsigned char> blocks, const NtfsIndexUse& use,
                      const std::function<void(uint32_t)>& visit);

// A $FILE_NAME value, checked.
struct NtfsFileName {
  uint8_t nameSpace = 0;
  uint32_t parent = 0;  // low 32 bits of the reference to the folder that the name is in
  std::u16string units = {};
};

// False when the value does not hold the name that it claims.
bool DecodeFileName(std::span<const unsigned char> value, NtfsFileName* name);

}  // namespace capsule
