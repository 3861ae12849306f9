// The image header: as stored in the fixed layout, and as decoded for the host.
#pragma once

#include <cstddef>
#include <cstdint>

#include "capsule/partition/partition_record.h"

namespace capsule {

#pragma pack(push, 1)

// The header as stored, 7560 bytes, little-endian.
struct _ImageHeader {
  char Version[256];  // zero-terminated
  unsigned char Opaque256[400];
  uint8_t ScrambleFlag;  // 1: bytes 5512 to 7311 are scrambled
  char ScrambleKey[36];  // up to the first zero byte
  unsigned char Opaque693[22];
  uint32_t IndexOffset;     // file offset of the index, 0 without one
  uint8_t CompressionMark;  // 2 when written with compression, else 0
  uint8_t Constant3;        // 3
  uint16_t TailOffset;      // 0 in this layout
  unsigned char Opaque723[4277];
  unsigned char SectorArea[512];  // AB CD 00, then zeros
  uint8_t Opaque5512;
  uint8_t PartitionCount;  // highest partition number used + 1
  uint8_t Opaque5514;
  uint8_t CompressionFlag;  // 1: data blocks are compressed
  uint32_t Opaque5516;
  unsigned char Opaque5520[1536];
  _Partition Partitions[10];  // from 7056 on, in list order
  unsigned char Opaque7296[16];
  uint8_t Opaque7312;
  uint32_t Opaque7313;
  unsigned char Opaque7317[95];
  unsigned char Opaque7412[148];
};

// One link of the chain of partition records, in record order.
struct _PartitionNode {
  _Partition Record;
  _PartitionNode* Next;     // null in the last node
  unsigned char Extra[12];  // bytes 28 to 39 of a 40-byte stored record, else zeros
};

// The decoded header. Owned, with its chain, by the CapsuleFile.
struct _NewImageHeader {
  char Version[256];
  unsigned char Opaque256[400];
  unsigned char Middle[4344];  // bytes 656 to 4999
  unsigned char SectorArea[512];
  uint8_t Opaque5512;
  uint8_t PartitionCount;
  uint8_t Opaque5514;
  uint8_t CompressionFlag;
  uint32_t Opaque5516;
  unsigned char Opaque5520[1536];
  _PartitionNode* Partitions;
  unsigned char Opaque7296[16];
  uint8_t Opaque7312;
  uint32_t Opaque7313;
  unsigned char Opaque7317[95];
  unsigned char Opaque7412[148];
};

#pragma pack(pop)

static_assert(sizeof(_ImageHeader) == 7560 && offsetof(_ImageHeader, ScrambleFlag) == 656);
static_assert(offsetof(_ImageHeader, ScrambleKey) == 657);
static_assert(offsetof(_ImageHeader, IndexOffset) == 715);
static_assert(offsetof(_ImageHeader, CompressionMark) == 719);
static_assert(offsetof(_ImageHeader, Constant3) == 720);
static_assert(offsetof(_ImageHeader, TailOffset) == 721);
static_assert(offsetof(_ImageHeader, SectorArea) == 5000);
static_assert(offsetof(_ImageHeader, Opaque5512) == 5512);
static_assert(offsetof(_ImageHeader, PartitionCount) == 5513);
static_assert(offsetof(_ImageHeader, CompressionFlag) == 5515);
static_assert(offsetof(_ImageHeader, Opaque5520) == 5520);
static_assert(offsetof(_ImageHeader, Partitions) == 7056);
static_assert(offsetof(_ImageHeader, Opaque7296) == 7296);
static_assert(offsetof(_ImageHeader, Opaque7312) == 7312);
static_assert(offsetof(_ImageHeader, Opaque7412) == 7412);

}  // namespace capsule
