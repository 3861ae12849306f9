#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/cli/command_runner.h"
#include "tests/support/json.h"
#include "tests/support/source_tree.h"

namespace capsule::test {
namespace {

namespace fs = std::filesystem;

// An image of a compressed file whose fourth record is torn, and of another that is whole.
class DamageTest : public CommandTest {
 protected:
  DamageTest() {
    fs::create_directories(At("in"));
    WriteFile(At("in/text"), m_text);
    WriteFile(At("in/whole"), "content");
    EXPECT_EQ(RunCapsule({"create", "-q", At("i"), At("in")}).status, 0);
    std::string bytes = ReadFile(At("i"));
    auto items = ParseJsonLines(RunCapsule({"inspect", "--json", At("i")}).out);
    std::erase_if(items, [](const Json& item) { return item.value("kind", "") != "data block"; });
    const size_t record = items.at(3)["offset"];
    for (size_t i = 100; i < 140; ++i) bytes[record + i] = static_cast<char>(0xFF);
    WriteFile(At("i"), bytes);
  }

  // The source without, or with zeros for, what was told to be lost.
  std::string Left(const std::vector<Json>& told, bool zeros) const {
    std::string left = m_text;
    for (auto line = told.rbegin(); line != told.rend(); ++line) {
      EXPECT_EQ((*line)["path"], "0:/text");
      EXPECT_FALSE((*line)["reason"].get<std::string>().empty());
      if ((*line)["state"] != "lost") continue;
      const size_t length = (*line)["length"];
      left.replace((*line)["offset"], length, zeros ? length : 0, '\0');
    }
    return left;
  }

  CommandResult Extract(const std::string& choice) const {
    fs::create_directories(At(choice));
    return RunCapsule(
        {"extract", "-q", At("i"), "-C", At(choice), "--on-damage", choice, "--json"});
  }

  const std::string m_text = MixedBytes(100000, 17);
};

TEST_F(DamageTest, ExtractLeavesOutSkipsOrZeroesWhatIsLost) {
  const CommandResult stop = Extract("stop");
  EXPECT_EQ(stop.status, 1);
  EXPECT_FALSE(fs::exists(At("stop/text")));
  EXPECT_EQ(ParseJsonLines(stop.out).at(0)["state"], "failed");

  const CommandResult zero = Extract("zero");
  EXPECT_EQ(zero.status, 1) << zero.err;
  const auto told = ParseJsonLines(zero.out);
  ASSERT_GE(told.size(), 2U);
  EXPECT_EQ(told.front()["offset"], 3 * 8192);
  EXPECT_GE(told.front()["length"], 8192);
  EXPECT_EQ(told.back()["state"], "uncertain");
  EXPECT_TRUE(ReadFile(At("zero/text")) == Left(told, true));
  EXPECT_NE(zero.err.find("i: 0:/text: bytes 24576 to "), std::string::npos) << zero.err;
  EXPECT_EQ(std::count(zero.err.begin(), zero.err.end(), '\n'),
            std::count(zero.out.begin(), zero.out.end(), '\n'));

  const CommandResult skip = Extract("skip");
  EXPECT_EQ(skip.status, 1);
  EXPECT_EQ(skip.out, zero.out);
  EXPECT_TRUE(ReadFile(At("skip/text")) == Left(told, false));
  for (const char* choice : {"stop", "skip", "zero"}) {
    EXPECT_EQ(ReadFile(At(std::string(choice) + "/whole")), "content");
  }
}

TEST_F(DamageTest, IndexKeepsOrNotesDamageThatEachCommandThenNames) {
  const std::string bytes = ReadFile(At("i"));
  EXPECT_EQ(RunCapsule({"index", At("i")}).status, 2);
  EXPECT_TRUE(ReadFile(At("i")) == bytes);
  EXPECT_EQ(RunCapsule({"index", "--force", At("i")}).status, 1);
  fs::create_directories(At("out"));
  for (const auto& command : std::vector<std::vector<std::string>>{
           {"list", At("i")}, {"info", At("i")}, {"extract", At("i"), "-C", At("out")}}) {
    const CommandResult result = RunCapsule(command);
    EXPECT_EQ(result.status, 1) << command[0];
    EXPECT_NE(result.err.find("i: 0:/text: "), std::string::npos) << result.err;
  }
  const CommandResult verified = RunCapsule({"verify", At("i")});
  EXPECT_EQ(verified.status, 1);
  EXPECT_NE(verified.out.find("0:/text: "), std::string::npos) << verified.out;
  EXPECT_FALSE(fs::exists(At("out/text")));
  EXPECT_EQ(ReadFile(At("out/whole")), "content");
}

TEST_F(DamageTest, CatTellsTheLossOnStandardError) {
  const CommandResult zero = RunCapsule({"cat", At("i"), "text", "--on-damage=zero", "--json",
                                         "--offset", "20000", "--length", "15000"});
  EXPECT_EQ(zero.status, 1);
  EXPECT_TRUE(zero.out == Left(ParseJsonLines(zero.err), true).substr(20000, 15000));
  EXPECT_EQ(RunCapsule({"cat", At("i"), "text"}).status, 2);
  EXPECT_EQ(RunCapsule({"cat", At("i"), "whole", "--on-damage=skip"}).status, 0);
  EXPECT_EQ(RunCapsule({"cat", At("i"), "text", "--on-damage=all"}).status, 2);
}

}  // namespace
}  // namespace capsule::test
