#include <gtest/gtest.h>

#include <filesystem>

#include "tests/cli/command_runner.h"
#include "tests/support/json.h"

namespace capsule::test {
namespace {

TEST(VerifyCommandTest, FaultsAndMapsGoToStandardOutputAndDecideTheStatus) {
  TempDir directory;
  std::filesystem::create_directories(directory / "in/sub");
  WriteFile(directory / "in/a", "content of a");
  WriteFile(directory / "in/sub/A long name\x01 of b", std::string(20000, 'b'));
  const std::string image = directory / "i";
  ASSERT_EQ(RunCapsule({"create", "-q", image, directory / "in"}).status, 0);

  const CommandResult clean = RunCapsule({"verify", image});
  EXPECT_EQ(clean.status, 0) << clean.err;
  EXPECT_EQ(clean.out, "");
  EXPECT_NE(clean.err.find("2 files read, 5 check values compared, no fault"), std::string::npos)
      << clean.err;
  const auto map = RunCapsule({"inspect", "--json", image});
  EXPECT_EQ(map.status, 0) << map.err;
  const auto items = ParseJsonLines(map.out);
  EXPECT_EQ(items.back()["accounted"], std::filesystem::file_size(image));
  EXPECT_EQ(items.back()["problems"], 0);
  const CommandResult text = RunCapsule({"inspect", image});
  EXPECT_NE(text.out.find("A long name\\x01 of b"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("(100.00 %)"), std::string::npos);

  std::string bytes = ReadFile(image);
  const size_t data = bytes.find(std::string("\x03\x01\x00\x02\x00\x00", 6));  // of "a"
  ASSERT_NE(data, std::string::npos);
  bytes[data] = 9;
  WriteFile(image, bytes);
  const CommandResult damaged = RunCapsule({"verify", "--json", image});
  EXPECT_EQ(damaged.status, 1);
  const auto faults = ParseJsonLines(damaged.out);
  EXPECT_EQ(faults.front()["offset"], data);
  EXPECT_EQ(faults.front()["path"], "0:/a");
  EXPECT_EQ(faults.back()["faults"], faults.size() - 1);
  EXPECT_EQ(RunCapsule({"inspect", image}).status, 1);

  WriteFile(directory / "text", std::string(9000, 'x'));
  EXPECT_EQ(RunCapsule({"verify", directory / "text"}).status, 2);
  EXPECT_EQ(RunCapsule({"verify", directory / "missing"}).status, 2);
  EXPECT_EQ(RunCapsule({"inspect", directory / "missing"}).status, 2);
  EXPECT_EQ(RunCapsule({"inspect", directory / "text"}).status, 1);
}

}  // namespace
}  // namespace capsule::test
