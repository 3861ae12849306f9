// Files by descriptor. 0 means "not open" throughout the library and is refused with EBADF; a file
// that the system opens in the place of a closed standard stream is moved above 2, so that nobody
// prints into it. Descriptors are closed on exec. Failures give -1 or false and leave the reason in
// errno; a null path is one. Every transfer goes on over EINTR and short transfers. Any thread may
// use a descriptor; transfers at an offset are one step each and do not disturb each other.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

namespace capsule::platform {

// The same file, whatever names lead to it.
struct FileIdentity {
  uint64_t device = 0;
  uint64_t inode = 0;
  bool operator==(const FileIdentity&) const = default;
};

// Opens a regular file for reading, without ever waiting for one. -1 on failure: EISDIR for a
// directory, ENOTSUP for a pipe or a device. Paths are those of the system, taken as they are.
int OpenForReading(const char* path);

// Opens for writing and creates a missing file; an existing one keeps its bytes. -1 on failure.
int OpenForWriting(const char* path);

// Opens an existing regular file for reading and writing. -1 on failure.
int OpenForUpdate(const char* path);

// Reads `count` bytes at `offset` without moving the descriptor's position: the number read, fewer
// than `count` only at the end of the file; -1 on failure or for a negative offset.
int64_t ReadAt(int descriptor, void* buffer, size_t count, int64_t offset);

// Writes all `count` bytes at `offset` without moving the descriptor's position.
bool WriteAt(int descriptor, const void* data, size_t count, int64_t offset);

// Writes all `count` bytes at the descriptor's position and advances it.
bool WriteHere(int descriptor, const void* data, size_t count);

// The length of the open file in bytes, or -1.
int64_t FileLength(int descriptor);

// What becomes another when a file is written to.
struct FileStamp {
  int64_t length = 0;
  int64_t modifiedSeconds = 0;
  int64_t modifiedNanoseconds = 0;
  bool operator==(const FileStamp&) const = default;
};

// The stamp of an open file; none on failure.
std::optional<FileStamp> Stamp(int descriptor);

// Whether the file's storage has room for `count` bytes from `offset` on; its length stays.
bool CanGrow(int descriptor, int64_t offset, int64_t count);

// Lets the system begin to bring `count` bytes from `offset` on to disk, without waiting for it.
void StartWriteBack(int descriptor, int64_t offset, int64_t count);

bool Truncate(int descriptor, int64_t length);
bool Sync(int descriptor);

// Device and inode of an open file; none on failure.
std::optional<FileIdentity> Identify(int descriptor);

// How many descriptors the process may have.
size_t MostDescriptors();

// 0 or -1. Never retried: after EINTR the descriptor is gone all the same.
int Close(int descriptor);

}  // namespace capsule::platform
