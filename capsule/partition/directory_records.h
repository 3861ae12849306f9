// Records of a partition section: the header in front of every record, the FAT 8.3 entry, the VFAT
// long-name entry, and the in-memory record that a host receives. All are packed, little-endian
// where stored.
#pragma once

#include <cstddef>
#include <cstdint>

namespace capsule {

class CapsuleDirectoryEntry;

#pragma pack(push, 1)

// In front of every record: 8 bytes, then `Length` bytes of payload. The next record begins 8 +
// `Length` bytes further on.
struct _MiniHeader {
  uint8_t Type;     // 0x16 directory record, 0x17 partition area, 3 data block
  uint8_t Flag;     // directory records: 1; data blocks: 1 in the last record of a file, else 0
  uint32_t Param;   // data blocks: bytes of the chunk, a multiple of 512, or 0 when stored plainly
  uint16_t Length;  // bytes of payload
};

// A FAT 8.3 entry. Times are DOS times: two-second steps, UTC.
struct _ShortDirEntry {
  uint8_t Name[8];          // upper case, padded with blanks
  uint8_t Extension[3];     // upper case, padded with blanks
  uint8_t Attribute;        // 0x10 directory, 0x01 read-only, 0x02 hidden, 0x20 archive
  uint8_t Reserved;         // 0
  uint8_t CreationSeconds;  // 0 to 59, local time
  uint16_t CreationTime;    // DOS time
  uint16_t CreationDate;    // DOS date
  uint16_t LastAccessDate;  // DOS date
  uint16_t FirstClusterHigh;
  uint16_t WriteTime;  // DOS time
  uint16_t WriteDate;  // DOS date
  uint16_t FirstClusterLow;
  uint32_t FileSize;  // bytes; 0 for directories
};

// A VFAT long-name entry: 13 UTF-16LE units of the name. Piece k holds units 13(k-1)+1 to 13k; the
// last piece comes first on disk and has 0x40 added to its ordinal, and where the name ends inside
// it one 0x0000 and then 0xFFFF units.
struct _LongDirEntry {
  uint8_t Ordinal;        // 1..n, the last piece + 0x40
  uint8_t Units1[10];     // units 1 to 5
  uint8_t Attribute;      // 0x0F
  uint8_t Type;           // 0
  uint8_t Checksum;       // of the 11-byte short name
  uint8_t Units6[12];     // units 6 to 11
  uint16_t FirstCluster;  // 0
  uint8_t Units12[4];     // units 12 and 13
};

// One directory entry as a host receives it. It lives as long as its owner, which lives as long as
// the CapsuleFile.
struct _DirectoryEntry {
  _MiniHeader Header;            // header of the short entry's record
  _ShortDirEntry FirstEntry;     // used with DirTypeFat16
  _ShortDirEntry OtherEntry;     // used with the other types
  unsigned char* LongName;       // UTF-16LE units in on-disk piece order, last piece first
  int32_t LongNameLength;        // bytes at LongName; 0 without a long name
  CapsuleDirectoryEntry* Owner;  // holds this record
  _DirectoryEntry* Next;         // next record of a listing, or null
};

#pragma pack(pop)

static_assert(sizeof(_MiniHeader) == 8 && offsetof(_MiniHeader, Flag) == 1);
static_assert(offsetof(_MiniHeader, Param) == 2 && offsetof(_MiniHeader, Length) == 6);
static_assert(sizeof(_ShortDirEntry) == 32 && offsetof(_ShortDirEntry, Extension) == 8);
static_assert(offsetof(_ShortDirEntry, Attribute) == 11);
static_assert(offsetof(_ShortDirEntry, CreationSeconds) == 13);
static_assert(offsetof(_ShortDirEntry, CreationTime) == 14);
static_assert(offsetof(_ShortDirEntry, CreationDate) == 16);
static_assert(offsetof(_ShortDirEntry, LastAccessDate) == 18);
static_assert(offsetof(_ShortDirEntry, FirstClusterHigh) == 20);
static_assert(offsetof(_ShortDirEntry, WriteTime) == 22);
static_assert(offsetof(_ShortDirEntry, WriteDate) == 24);
static_assert(offsetof(_ShortDirEntry, FirstClusterLow) == 26);
static_assert(offsetof(_ShortDirEntry, FileSize) == 28);
static_assert(sizeof(_LongDirEntry) == 32 && offsetof(_LongDirEntry, Units1) == 1);
static_assert(offsetof(_LongDirEntry, Attribute) == 11 && offsetof(_LongDirEntry, Type) == 12);
static_assert(offsetof(_LongDirEntry, Checksum) == 13 && offsetof(_LongDirEntry, Units6) == 14);
static_assert(offsetof(_LongDirEntry, FirstCluster) == 26);
static_assert(offsetof(_LongDirEntry, Units12) == 28);
static_assert(sizeof(_DirectoryEntry) == 72 + 4 + 3 * sizeof(void*));

}  // namespace capsule
