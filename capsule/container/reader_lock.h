// CpsReaderLock reads an image by position: one indivisible step, so that any number of readers
// share a descriptor.
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
  // read error or for a negative offset.
  int ReadAt(int descriptor, void* buffer, unsigned count, long offset);
};

}  // namespace capsule
