// The file is opened without being emptied, judged by its descriptor, and emptied only then: a file
// that is not the library's to write loses nothing.
#include "capsule/platform/trace_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "capsule/platform/posix/descriptor.h"

namespace capsule::platform {
namespace {

int ReasonNotToTrace(int descriptor) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) return errno;
  return S_ISREG(status.st_mode) && status.st_nlink == 1 ? 0 : ENOTSUP;
}

int OpenTraceDescriptor(const char* path, TraceStart start) {
  const int append = start == TraceStart::AtEnd ? O_APPEND : 0;
  const int descriptor = OpenDescriptor(path, O_WRONLY | O_CREAT | O_NOFOLLOW | append,
                                        S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH);
  if (descriptor < 0) return -1;
  int reason = ReasonNotToTrace(descriptor);
  // Only now that the file is known to be ours to write.
  if (reason == 0 && start == TraceStart::Empty && ::ftruncate(descriptor, 0) != 0) reason = errno;
  return reason == 0 ? descriptor : CloseAndFail(descriptor, reason);
}

}  // namespace

std::FILE* OpenTraceFile(const char* path, TraceStart start) {
  const int descriptor = OpenTraceDescriptor(path, start);
  if (descriptor < 0) return nullptr;
  std::FILE* stream = ::fdopen(descriptor, start == TraceStart::AtEnd ? "a" : "w");
  if (stream == nullptr) CloseAndFail(descriptor, errno);
  return stream;
}

}  // namespace capsule::platform
