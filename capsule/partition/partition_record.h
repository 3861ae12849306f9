// The record of one partition section in the image header.
#pragma once

#include <cstddef>
#include <cstdint>

namespace capsule {

#pragma pack(push, 1)
struct _Partition {
  uint8_t Unused0[2];
  uint8_t SystemId;  // partition system id: 0x0B in images built here; 4, 5, 6, 14 FAT16; 7 NTFS
  uint8_t Unused3[11];
  uint32_t SectorCount;  // over all files of the image, bytes / 512 + 1 each
  uint8_t Unused18[6];
};
#pragma pack(pop)

inline constexpr uint8_t kSystemIdNtfs = 7;

static_assert(sizeof(_Partition) == 24 && offsetof(_Partition, SystemId) == 2);
static_assert(offsetof(_Partition, SectorCount) == 14);

}  // namespace capsule
