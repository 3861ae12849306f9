// HeaderScramble hides or restores a region of an image header and sums it up.
//
//   const uint32_t before = HeaderScramble(bytes, "key", sizeof bytes, 0);  // hidden now
//   const uint32_t after = HeaderScramble(bytes, "key", sizeof bytes, 1);   // and plain again
//   if (before == after) Use(bytes);
//
// It keeps no state: any thread may call it.
#pragma once

#include <cstdint>

#include "capsule/export.h"

namespace capsule {

// Changes `length` bytes at `data` in place, with a zero-terminated key that may be empty.
//
//   mode  data                                              checksum of
//   0     scrambled                                         all bytes, plain
//   1     restored                                          all bytes, plain
//   2     checksum stored in bytes 0 to 3, then scrambled   bytes 4 on, plain
//   3     restored                                          bytes 4 on, plain
//   4     unchanged                                         all bytes
//
// Result: exclusive-or of those bytes << 16 | the low 16 bits of their sum. Another mode, or fewer
// bytes than the mode needs (1; 4 with modes 2 and 3): nothing is changed and the result is 0.
CAPSULE_API uint32_t HeaderScramble(unsigned char* data, const char* key, int length, int mode);

}  // namespace capsule
