#include "capsule/platform/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <functional>

#include "tests/support/temp_dir.h"

namespace {

thread_local int t_nInterruptions = 0;  // how many of the calls below a signal still interrupts

bool IsInterrupted() {
  if (t_nInterruptions == 0) return false;
  --t_nInterruptions;
  errno = EINTR;
  return true;
}

}  // namespace

// What the library calls in this program instead of the functions of the C library.
extern "C" {

int openat(int folder, const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const auto mode = va_arg(rest, unsigned);
  va_end(rest);
  return IsInterrupted() ? -1 : static_cast<int>(::syscall(SYS_openat, folder, path, flags, mode));
}

ssize_t pread(int file, void* buffer, size_t count, off_t offset) {
  return IsInterrupted() ? -1 : ::syscall(SYS_pread64, file, buffer, count, offset);
}

ssize_t pwrite(int file, const void* data, size_t count, off_t offset) {
  return IsInterrupted() ? -1 : ::syscall(SYS_pwrite64, file, data, count, offset);
}

ssize_t write(int file, const void* data, size_t count) {
  return IsInterrupted() ? -1 : ::syscall(SYS_write, file, data, count);
}

int posix_fallocate(int file, off_t offset, off_t count) {
  return IsInterrupted() ? EINTR
                         : static_cast<int>(::syscall(SYS_fallocate, file, 0, offset, count));
}

int ftruncate(int file, off_t length) noexcept {
  return IsInterrupted() ? -1 : static_cast<int>(::syscall(SYS_ftruncate, file, length));
}

int fsync(int file) { return IsInterrupted() ? -1 : static_cast<int>(::syscall(SYS_fsync, file)); }

}  // extern "C"

namespace capsule::platform {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

TEST(FileTest, TransfersGoToAnyOffsetAndReadsEndWithTheFile) {
  const TempDir dir;
  WriteFile(dir / "f", "0123456789");
  int descriptor = OpenForReading((dir / "f").c_str());
  ASSERT_GT(descriptor, 0);
  char buffer[16] = {};
  EXPECT_EQ(ReadAt(descriptor, buffer, 4, 3), 4);
  EXPECT_STREQ(buffer, "3456");
  EXPECT_EQ(ReadAt(descriptor, buffer, 16, 8), 2);
  EXPECT_EQ(ReadAt(descriptor, buffer, 16, 10), 0);
  EXPECT_EQ(ReadAt(descriptor, buffer, 16, int64_t{1} << 62), 0);
  EXPECT_EQ(ReadAt(descriptor, buffer, 1, -1), -1);
  EXPECT_EQ(ReadAt(descriptor, buffer, 0, -1), -1);
  EXPECT_EQ(FileLength(descriptor), 10);
  EXPECT_FALSE(WriteAt(descriptor, "x", 1, 0)) << "opened for reading";
  EXPECT_EQ(Close(descriptor), 0);
  EXPECT_EQ(Close(descriptor), -1);

  descriptor = OpenForWriting((dir / "f").c_str());
  ASSERT_GT(descriptor, 0);
  EXPECT_TRUE(WriteHere(descriptor, "ab", 2));
  EXPECT_TRUE(WriteAt(descriptor, "xy", 2, 8));
  EXPECT_TRUE(WriteHere(descriptor, "c", 1));
  EXPECT_EQ(ReadFile(dir / "f"), "abc34567xy") << "what is not covered stays";
  EXPECT_TRUE(Truncate(descriptor, 4));
  EXPECT_TRUE(Sync(descriptor));
  EXPECT_EQ(FileLength(descriptor), 4);
  EXPECT_FALSE(WriteAt(descriptor, "x", 1, -1));
  EXPECT_EQ(Close(descriptor), 0);
}

TEST(FileTest, WhatASignalInterruptsIsTriedAgain) {
  const TempDir dir;
  const std::string path = dir / "f";
  int file = 0;
  char buffer[4] = {};
  const std::pair<const char*, std::function<bool()>> steps[] = {
      {"open", [&] { return (file = OpenForWriting(path.c_str())) > 0; }},
      {"write here", [&] { return WriteHere(file, "abc", 3); }},
      {"write at", [&] { return WriteAt(file, "xyz", 3, 1); }},
      {"grow", [&] { return CanGrow(file, 4, 100); }},
      {"truncate", [&] { return Truncate(file, 3); }},
      {"sync", [&] { return Sync(file); }},
      {"close, open",
       [&] { return Close(file) == 0 && (file = OpenForReading(path.c_str())) > 0; }},
      {"read", [&] { return ReadAt(file, buffer, 3, 0) == 3; }},
  };
  for (const auto& [name, step] : steps) {
    t_nInterruptions = 3;
    EXPECT_TRUE(step()) << name;
    EXPECT_EQ(t_nInterruptions, 0) << name;
  }
  EXPECT_STREQ(buffer, "axy");
  EXPECT_EQ(Close(file), 0);
}

TEST(FileTest, OnlyRegularFilesAreReadAndNothingIsWaitedFor) {
  const TempDir dir;
  const auto reasonFor = [](const std::string& path) {
    errno = 0;
    EXPECT_EQ(OpenForReading(path.c_str()), -1) << path;
    return errno;
  };
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  EXPECT_EQ(reasonFor(dir / "fifo"), ENOTSUP);
  EXPECT_EQ(reasonFor("/dev/null"), ENOTSUP);
  EXPECT_EQ(reasonFor(dir.Path().string()), EISDIR);
  EXPECT_EQ(reasonFor(dir / "missing"), ENOENT);
  EXPECT_EQ(OpenForWriting((dir / "fifo").c_str()), -1);
  EXPECT_EQ(OpenForWriting(dir.Path().c_str()), -1);
  EXPECT_EQ(errno, EISDIR);
}

TEST(FileTest, DescriptorsOfClosedStandardStreamsAreNotHandedOut) {
  const TempDir dir;
  WriteFile(dir / "f", "x");
  const int savedIn = ::dup(STDIN_FILENO);
  const int savedError = ::dup(STDERR_FILENO);
  ::close(STDIN_FILENO);
  ::close(STDERR_FILENO);
  const int reading = OpenForReading((dir / "f").c_str());
  const int writing = OpenForWriting((dir / "g").c_str());
  const bool inIsFree = ::fcntl(STDIN_FILENO, F_GETFD) == -1;
  const bool errorIsFree = ::fcntl(STDERR_FILENO, F_GETFD) == -1;
  if (savedIn >= 0) ::dup2(savedIn, STDIN_FILENO);
  ::dup2(savedError, STDERR_FILENO);
  ::close(savedIn);
  ::close(savedError);

  EXPECT_GT(reading, 2);
  EXPECT_GT(writing, 2);
  EXPECT_TRUE(inIsFree && errorIsFree) << "the moved descriptor stayed open";
  for (const int descriptor : {reading, writing}) {
    EXPECT_EQ(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(Close(descriptor), 0);
  }
}

TEST(FileTest, NotOpenIsRefusedEverywhere) {
  char byte = 0;
  EXPECT_EQ(ReadAt(0, &byte, 1, 0), -1);
  EXPECT_FALSE(WriteAt(0, &byte, 1, 0));
  EXPECT_FALSE(WriteHere(0, &byte, 1));
  EXPECT_EQ(FileLength(0), -1);
  EXPECT_FALSE(Truncate(0, 0));
  EXPECT_FALSE(Sync(0));
  EXPECT_FALSE(Identify(0).has_value());
  EXPECT_EQ(Close(0), -1);
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
}  // namespace capsule::platform
