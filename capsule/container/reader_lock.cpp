#include "capsule/container/reader_lock.h"

#include <limits>

#include "capsule/platform/file.h"

namespace capsule {

int CpsReaderLock::ReadAt(int descriptor, void* buffer, unsigned count, long offset) {
  if (count > static_cast<unsigned>(std::numeric_limits<int>::max())) return -1;
  return static_cast<int>(platform::ReadAt(descriptor, buffer, count, offset));
}

}  // namespace capsule
