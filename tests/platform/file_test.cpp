#include "capsule/platform/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "tests/support/temp_dir.h"

namespace capsule::platform {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

TEST(FileTest, ReadsAtAnyOffsetUpToTheEnd) {
  const TempDir dir;
  WriteFile(dir / "f", "0123456789");
  const int descriptor = OpenForReading((dir / "f").c_str());
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
  EXPECT_FALSE(WriteAt(descriptor, "x", 1, 0));
  EXPECT_EQ(Close(descriptor), 0);
  EXPECT_EQ(Close(descriptor), -1);
}

TEST(FileTest, WritingKeepsWhatItDoesNotCover) {
  const TempDir dir;
  WriteFile(dir / "f", "0123456789");
  const int descriptor = OpenForWriting((dir / "f").c_str());
  ASSERT_GT(descriptor, 0);
  EXPECT_TRUE(WriteHere(descriptor, "ab", 2));
  EXPECT_TRUE(WriteAt(descriptor, "xy", 2, 8));
  EXPECT_TRUE(WriteHere(descriptor, "c", 1));
  EXPECT_EQ(ReadFile(dir / "f"), "abc34567xy");
  EXPECT_TRUE(Truncate(descriptor, 4));
  EXPECT_TRUE(Sync(descriptor));
  EXPECT_EQ(FileLength(descriptor), 4);
  EXPECT_FALSE(WriteAt(descriptor, "x", 1, -1));
  EXPECT_EQ(Close(descriptor), 0);
}

TEST(FileTest, AFullDeviceIsAFailureWithItsReason) {
  const int descriptor = OpenForWriting("/dev/full");
  ASSERT_GT(descriptor, 0);
  EXPECT_FALSE(WriteHere(descriptor, "x", 1));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(Close(descriptor), 0);
}

// The limit lets part of a transfer through, as a disk that fills up does.
TEST(FileTest, AShortWriteIsAFailure) {
  const TempDir dir;
  const int descriptor = OpenForWriting((dir / "f").c_str());
  ASSERT_GT(descriptor, 0);
  const auto before = std::signal(SIGXFSZ, SIG_IGN);
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  const rlimit tight{1000, saved.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
  const std::string bytes(3000, 'x');
  const bool written = WriteHere(descriptor, bytes.data(), bytes.size());
  const int reason = errno;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &saved), 0);
  std::signal(SIGXFSZ, before);
  EXPECT_FALSE(written);
  EXPECT_EQ(reason, EFBIG);
  EXPECT_EQ(FileLength(descriptor), 1000);
  EXPECT_EQ(Close(descriptor), 0);
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
  EXPECT_EQ(reasonFor(""), ENOENT);
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

TEST(FileTest, IdentityIsThatOfTheFileNotOfItsName) {
  const TempDir dir;
  WriteFile(dir / "a", "x");
  WriteFile(dir / "b", "x");
  ASSERT_EQ(::link((dir / "a").c_str(), (dir / "c").c_str()), 0);
  const int a = OpenForReading((dir / "a").c_str());
  const int b = OpenForReading((dir / "b").c_str());
  const int c = OpenForReading((dir / "c").c_str());
  ASSERT_TRUE(Identify(a).has_value());
  EXPECT_EQ(Identify(a), Identify(c));
  EXPECT_NE(Identify(a), Identify(b));
  for (const int descriptor : {a, b, c}) EXPECT_EQ(Close(descriptor), 0);
  EXPECT_FALSE(Identify(a).has_value());
}

}  // namespace
}  // namespace capsule::platform
