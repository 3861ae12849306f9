#include "capsule/platform/trace_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/temp_dir.h"

namespace capsule::platform {
namespace {

TEST(TraceFileTest, APlantedNameHarmsNobody) {
  const test::TempDir dir;
  test::WriteFile(dir / "victim", "precious");
  ASSERT_EQ(::symlink((dir / "victim").c_str(), (dir / "soft").c_str()), 0);
  ASSERT_EQ(::symlink((dir / "nowhere").c_str(), (dir / "dangling").c_str()), 0);
  ASSERT_EQ(::link((dir / "victim").c_str(), (dir / "hard").c_str()), 0);
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  for (const char* name : {"soft", "hard", "dangling", "fifo", "missing/t"}) {
    for (const TraceStart start : {TraceStart::Empty, TraceStart::AtEnd}) {
      EXPECT_EQ(OpenTraceFile((dir / name).c_str(), start), nullptr) << name;
    }
  }
  EXPECT_EQ(test::ReadFile(dir / "victim"), "precious");
  EXPECT_FALSE(std::filesystem::exists(dir / "nowhere"));
}

}  // namespace
}  // namespace capsule::platform
