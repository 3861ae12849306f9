// Records of NTFS partitions as stored in an image, and the NTFS values that they carry. Packed,
// little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

namespace capsule {

#pragma pack(push, 1)

// In front of every record of an NTFS section: 46 bytes, then `Length` bytes of payload. The next
// record begins 46 + `Length` bytes further on.
struct _NTFSMiniHeader {
  uint8_t Opaque0;
  uint8_t LastFlag;     // 1 in the last record of a file's data
  uint32_t RecordType;  // 102 to 108, see ntfs_format.h
  uint8_t Opaque6[2];
  uint16_t UncompressedLength;  // bytes of the payload once decompressed; 0: stored as it is
  uint16_t Length;              // bytes of payload
  uint8_t Opaque12[30];
  uint32_t PrimaryData;
};

// Value of a $STANDARD_INFORMATION attribute. Times count 100 ns since 1601.
struct _StandardInformation {
  uint64_t Time0;   // taken as the write time
  uint64_t Time8;   // taken as the creation time
  uint64_t Time16;  // taken as the last access time
  uint64_t Opaque24;
  uint32_t Flags;  // file attributes
};

// Value of a $FILE_NAME attribute; `NameLength` UTF-16LE units follow it.
struct _FileName {
  uint64_t ParentReference;
  uint8_t Opaque8[56];
  uint8_t NameLength;  // units
  uint8_t Namespace;   // 0 POSIX, 1 Win32, 2 DOS, 3 Win32 and DOS
};

#pragma pack(pop)

static_assert(sizeof(_NTFSMiniHeader) == 46 && offsetof(_NTFSMiniHeader, RecordType) == 2);
static_assert(offsetof(_NTFSMiniHeader, UncompressedLength) == 8);
static_assert(offsetof(_NTFSMiniHeader, Length) == 10);
static_assert(offsetof(_NTFSMiniHeader, PrimaryData) == 42);
static_assert(sizeof(_StandardInformation) == 36 && offsetof(_StandardInformation, Flags) == 32);
static_assert(sizeof(_FileName) == 66 && offsetof(_FileName, NameLength) == 64);

}  // namespace capsule
