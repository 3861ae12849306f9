// CpsReaderLock reads an image by position: one indivisible step, so that any number of readers
// share a descriptor. Each makes a lock of its own; any number may be in use on any threads.
//
//   unsigned char header[8];
//   if (CpsReaderLock().ReadAt(fd, header, sizeof header, 7560) == 8) Use(header);
#pragma once

#include <cstdint>

#include "capsule/export.h"

namespace capsule {

class CAPSULE_API CpsReaderLock {
 public:
  CpsReaderLock() = default;
  virtual ~CpsReaderLock() = default;
  CpsReaderLock(const CpsReaderLock&) = delete;
  CpsReaderLock& operator=(const CpsReaderLock&) = delete;

  // Bytes read at `offset` into `buffer`: fewer than `count` only at the end of the file; -1 on a
  // read error, for a negative offset, or for a count above 2^31-1.
  int ReadAt(int descriptor, void* buffer, unsigned count, long offset);
};

}  // namespace capsule
