#include "capsule/platform/trace_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

namespace capsule::platform {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

bool WriteTrace(const std::string& path, TraceStart start) {
  std::FILE* stream = OpenTraceFile(path.c_str(), start);
  if (stream == nullptr) return false;
  std::fputs("new\n", stream);
  return std::fclose(stream) == 0;
}

TEST(TraceFileTest, CreatesEmptiesOrAppends) {
  const TempDir dir;
  EXPECT_TRUE(WriteTrace(dir / "t", TraceStart::AtEnd));
  EXPECT_TRUE(WriteTrace(dir / "t", TraceStart::AtEnd));
  EXPECT_EQ(ReadFile(dir / "t"), "new\nnew\n");
  EXPECT_TRUE(WriteTrace(dir / "t", TraceStart::Empty));
  EXPECT_EQ(ReadFile(dir / "t"), "new\n");
}

TEST(TraceFileTest, APlantedNameHarmsNobody) {
  const TempDir dir;
  WriteFile(dir / "victim", "precious");
  ASSERT_EQ(::symlink((dir / "victim").c_str(), (dir / "soft").c_str()), 0);
  ASSERT_EQ(::symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()), 0);
  ASSERT_EQ(::link((dir / "victim").c_str(), (dir / "hard").c_str()), 0);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  for (const char* name : {"soft", "hard", "dangling", "fifo", "missing/t"}) {
    EXPECT_FALSE(WriteTrace(dir / name, TraceStart::Empty)) << name;
    EXPECT_FALSE(WriteTrace(dir / name, TraceStart::AtEnd)) << name;
  }
  EXPECT_EQ(ReadFile(dir / "victim"), "precious");
  EXPECT_FALSE(std::filesystem::exists(dir / "nowhere"));
}

}  // namespace
}  // namespace capsule::platform
