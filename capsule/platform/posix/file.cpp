// Transfers go on over EINTR and over partial results, so callers see all bytes, the end of the
// file, or a failure.
#include "capsule/platform/file.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <span>

#include "capsule/platform/posix/descriptor.h"

namespace capsule::platform {
namespace {

// 0 means "not open": without this a forgotten open would read or close standard input.
bool IsOpen(int descriptor) {
  if (descriptor > 0) return true;
  errno = EBADF;
  return false;
}

// Repeats `step(rest, done)`, which transfers bytes of `rest`, the span behind the first `done`
// bytes, until all are through or it yields 0. The number of bytes, or -1.
template <typename Byte, typename Step>
int64_t TransferAll(std::span<Byte> bytes, Step step) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t moved = step(bytes.subspan(done), static_cast<off_t>(done));
    if (moved < 0 && errno == EINTR) continue;
    if (moved < 0) return -1;
    if (moved == 0) break;
    done += static_cast<size_t>(moved);
  }
  return static_cast<int64_t>(done);
}

std::span<const unsigned char> BytesOf(const void* data, size_t count) {
  return {static_cast<const unsigned char*>(data), count};
}

bool IsWhole(int64_t written, size_t count) {
  if (written >= 0 && static_cast<size_t>(written) < count) errno = EIO;
  return written >= 0 && static_cast<size_t>(written) == count;
}

// 0, or the errno that says why the open file is not one to read.
int ReasonNotRegular(int descriptor) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) return errno;
  if (S_ISDIR(status.st_mode)) return EISDIR;
  return S_ISREG(status.st_mode) ? 0 : ENOTSUP;
}

int OpenRegular(const char* path, int flags) {
  const int descriptor = OpenDescriptor(path, flags, 0);
  if (descriptor < 0) return -1;
  const int reason = ReasonNotRegular(descriptor);
  return reason == 0 ? descriptor : CloseAndFail(descriptor, reason);
}

}  // namespace

int OpenForReading(const char* path) { return OpenRegular(path, O_RDONLY); }

int OpenForUpdate(const char* path) { return OpenRegular(path, O_RDWR); }

int OpenForWriting(const char* path) {
  return OpenDescriptor(path, O_WRONLY | O_CREAT,
                        S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH);
}

int64_t ReadAt(int descriptor, void* buffer, size_t count, int64_t offset) {
  if (!IsOpen(descriptor)) return -1;
  if (offset < 0) {
    errno = EINVAL;
    return -1;
  }
  const std::span bytes(static_cast<unsigned char*>(buffer), count);
  return TransferAll(bytes, [&](std::span<unsigned char> rest, off_t done) {
    return ::pread(descriptor, rest.data(), rest.size(), offset + done);
  });
}

bool WriteAt(int descriptor, const void* data, size_t count, int64_t offset) {
  if (!IsOpen(descriptor)) return false;
  const auto step = [&](std::span<const unsigned char> rest, off_t done) {
    return ::pwrite(descriptor, rest.data(), rest.size(), offset + done);
  };
  return IsWhole(TransferAll(BytesOf(data, count), step), count);
}

bool WriteHere(int descriptor, const void* data, size_t count) {
  if (!IsOpen(descriptor)) return false;
  const auto step = [&](std::span<const unsigned char> rest, off_t) {
    return ::write(descriptor, rest.data(), rest.size());
  };
  return IsWhole(TransferAll(BytesOf(data, count), step), count);
}

int64_t FileLength(int descriptor) {
  struct stat status {};
  if (!IsOpen(descriptor) || ::fstat(descriptor, &status) != 0) return -1;
  return status.st_size;
}

std::optional<FileStamp> Stamp(int descriptor) {
  struct stat status {};
  if (!IsOpen(descriptor) || ::fstat(descriptor, &status) != 0) return std::nullopt;
  return FileStamp{status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

bool CanGrow(int descriptor, int64_t offset, int64_t count) {
  const int64_t length = FileLength(descriptor);
  if (length < 0) return false;
  int reason = EINTR;
  while (reason == EINTR) reason = ::posix_fallocate(descriptor, offset, count);
  if (!Truncate(descriptor, length)) return false;
  errno = reason;
  return reason == 0;
}

void StartWriteBack(int descriptor, int64_t offset, int64_t count) {
  static_cast<void>(::sync_file_range(descriptor, offset, count, SYNC_FILE_RANGE_WRITE));
}

bool Truncate(int descriptor, int64_t length) {
  if (!IsOpen(descriptor)) return false;
  int result = -1;
  do {
    result = ::ftruncate(descriptor, length);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

bool Sync(int descriptor) {
  if (!IsOpen(descriptor)) return false;
  int result = -1;
  do {
    result = ::fsync(descriptor);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

std::optional<FileIdentity> Identify(int descriptor) {
  struct stat status {};
  if (!IsOpen(descriptor) || ::fstat(descriptor, &status) != 0) return std::nullopt;
  return FileIdentity{status.st_dev, status.st_ino};
}

int Close(int descriptor) { return IsOpen(descriptor) ? ::close(descriptor) : -1; }

size_t MostDescriptors() {
  struct rlimit limit {};
  constexpr size_t kUsual = 1024;
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur > kUsual) return kUsual;
  return static_cast<size_t>(limit.rlim_cur);
}

}  // namespace capsule::platform
