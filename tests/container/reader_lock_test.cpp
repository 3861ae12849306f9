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
      for (int turn = 0; turn < 500; ++turn) {
        std::string bytes(5000, '\0');
        ASSERT_EQ(reader.ReadAt(descriptor, bytes.data(), 5000, i * 5000L), 5000);
        ASSERT_EQ(bytes, std::string(5000, static_cast<char>('a' + i)));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(CpsReaderLock().ReadAt(descriptor, content.data(), 0x80000000U, 0), -1);
  platform::Close(descriptor);
}

}  // namespace
}  // namespace capsule
