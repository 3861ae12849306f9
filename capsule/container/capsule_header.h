// CapsuleHeader holds one stored image header in the fixed layout, by value.
//
//   CapsuleHeader header;
//   if (CpsReaderLock().ReadAt(fd, header.Read(), sizeof(_ImageHeader), 0) == 7560)
//     Show(header.Read()->Version, header.Read()->PartitionCount);
//
// Numbers in the record are little-endian, as stored.
#pragma once

#include "capsule/container/header_records.h"
#include "capsule/export.h"

namespace capsule {

class CAPSULE_API CapsuleHeader {
 public:
  CapsuleHeader() = default;
  CapsuleHeader(const CapsuleHeader&) = default;
  CapsuleHeader& operator=(const CapsuleHeader&) = default;
  virtual ~CapsuleHeader() = default;

  // The record; lives as long as the object. All zeros at first.
  _ImageHeader* Read() { return &m_Header; }

 private:
  _ImageHeader m_Header{};
};

}  // namespace capsule
