// A descriptor below 3 is moved up at once: 0 means "not open" in this library, and 1 and 2 could
// be streams that the host has closed.
#include "capsule/platform/posix/descriptor.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace capsule::platform {
namespace {

constexpr int kFirstFree = 3;

int MoveUp(int descriptor) {
  const int moved = ::fcntl(descriptor, F_DUPFD_CLOEXEC, kFirstFree);
  const int reason = errno;
  ::close(descriptor);
  errno = reason;
  return moved;
}

}  // namespace

int OpenDescriptor(const char* path, int flags, mode_t mode) {
  return OpenDescriptorIn(AT_FDCWD, path, flags, mode);
}

int OpenDescriptorIn(int folder, const char* path, int flags, mode_t mode) {
  if (path == nullptr) {
    errno = EFAULT;
    return -1;
  }
  int descriptor = -1;
  do {
    descriptor = ::openat(folder, path, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode);
  } while (descriptor < 0 && errno == EINTR);
  return descriptor >= 0 && descriptor < kFirstFree ? MoveUp(descriptor) : descriptor;
}

int CloseAndFail(int descriptor, int reason) {
  ::close(descriptor);
  errno = reason;
  return -1;
}

}  // namespace capsule::platform
