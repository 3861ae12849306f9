#include "capsule/container/reader_lock.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "capsule/platform/file.h"
#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

TEST(ReaderLockTest, ThreadsShareADescriptor) {
  const test::TempDir dir;
  std::string content;
  for (int i = 0; i < 4; ++i) content += std::string(5000, static_cast<char>('a' + i));
  test::WriteFile(dir / "file", content);
  const int descriptor = platform::OpenForReading((dir / "file").c_str());
  ASSERT_GT(descriptor, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&, i] {
      CpsReaderLock reader;
      const std::string expected(5000, static_cast<char>('a' + i));
      for (int turn = 0; turn < 500; ++turn) {
        std::string bytes(5000, '\0');
        ASSERT_EQ(reader.ReadAt(descriptor, bytes.data(), 5000, i * 5000L), 5000);
        ASSERT_EQ(bytes, expected);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  platform::Close(descriptor);
}

TEST(ReaderLockTest, TheEndOfTheFileAndWrongOffsetsShow) {
  const test::TempDir dir;
  test::WriteFile(dir / "file", "0123456789");
  const int descriptor = platform::OpenForReading((dir / "file").c_str());
  CpsReaderLock reader;
  char bytes[16] = {};
  EXPECT_EQ(reader.ReadAt(descriptor, bytes, 8, 6), 4);
  EXPECT_EQ(std::string(bytes, 4), "6789");
  EXPECT_EQ(reader.ReadAt(descriptor, bytes, 8, 10), 0);
  EXPECT_EQ(reader.ReadAt(descriptor, bytes, 8, -1), -1);
  EXPECT_EQ(reader.ReadAt(descriptor, bytes, 0x80000000U, 0), -1);
  EXPECT_EQ(reader.ReadAt(0, bytes, 8, 0), -1);
  platform::Close(descriptor);
}

}  // namespace
}  // namespace capsule
