#include <gtest/gtest.h>

#include <filesystem>

#include "tests/cli/command_runner.h"
#include "tests/support/json.h"

namespace capsule::test {
namespace {

namespace fs = std::filesystem;

class OutputTest : public CommandTest {
 protected:
  OutputTest() {
    fs::create_directories(At("in/sub/folder"));
    WriteFile(At("in/sub/file"), "0123456789");
    WriteFile(At("in/caf\xe9"), "latin");
    WriteFile(At("in/\xc3\xa9t\xc3\xa9"), "utf");
    WriteFile(At("in/bell\x07"), "control");
    EXPECT_EQ(RunShell("touch -d '2024-05-01 12:00:00Z' " + Quoted(At("in/sub/file"))).status, 0);
    EXPECT_EQ(RunCapsule({"create", "-q", "--label", "my label", At("i"), At("in")}).status, 0);
  }
};

TEST_F(OutputTest, ListsShallowDeepAndSingleEntries) {
  EXPECT_EQ(RunCapsule({"list", At("i"), "sub"}).out, "0:/sub/file\n0:/sub/folder/\n");
  EXPECT_EQ(RunCapsule({"list", At("i"), "SUB/FILE"}).out, "0:/sub/file\n");
  EXPECT_EQ(
      RunCapsule({"list", "-R", At("i")}).out,
      "0:/bell\x07\n0:/caf\xe9\n0:/sub/\n0:/sub/file\n0:/sub/folder/\n0:/\xc3\xa9t\xc3\xa9\n");
  EXPECT_EQ(RunCapsule({"list", "-l", At("i"), "sub/file"}).out,
            "----         10 2024-05-01T12:00:00Z 0:/sub/file\n");
}

TEST_F(OutputTest, JsonIsUtf8AndKeepsTheBytes) {
  const auto entries = ParseJsonLines(RunCapsule({"list", "-R", "--json", At("i")}).out);
  ASSERT_EQ(entries.size(), 6u);
  EXPECT_EQ(entries[1]["path"], "0:/caf\xc3\xa9");
  EXPECT_EQ(entries[1]["path_hex"], "303a2f636166e9");
  EXPECT_EQ(entries[5]["path"], "0:/\xc3\xa9t\xc3\xa9");
  EXPECT_FALSE(entries[5].contains("path_hex"));
  EXPECT_EQ(entries[2]["type"], "directory");
  EXPECT_EQ(entries[3]["type"], "file");
  EXPECT_EQ(entries[3]["size"], 10);
  EXPECT_EQ(entries[3]["modified"], "2024-05-01T12:00:00Z");

  const Json info = ParseJson(RunCapsule({"info", "--json", At("i")}).out);
  EXPECT_NE(info["label"].get<std::string>().find("my label"), std::string::npos);
  EXPECT_EQ(info["partitions"][0]["files"], 4);
  EXPECT_EQ(info["partitions"][0]["label"], "in");
  EXPECT_EQ(entries[3]["partition"], "in");
  EXPECT_EQ(info["partitions"][0]["directories"], 2);
  EXPECT_EQ(info["index_checked"], true);
  EXPECT_EQ(info["size"], fs::file_size(At("i")));

  const CommandResult map = RunCapsule({"inspect", "--json", At("i")});
  EXPECT_EQ(map.status, 0) << map.err;
  const Json total = ParseJsonLines(map.out).back();
  EXPECT_EQ(total["accounted"], fs::file_size(At("i")));
  EXPECT_EQ(total["problems"], 0);
}

TEST_F(OutputTest, CatGivesTheRangeAskedFor) {
  EXPECT_EQ(RunCapsule({"cat", At("i"), "sub/file", "--offset", "3", "--length", "2"}).out, "34");
  EXPECT_EQ(RunCapsule({"cat", At("i"), "sub/file", "--offset", "10"}).out, "");
  EXPECT_EQ(RunCapsule({"cat", At("i"), "sub/file", "--offset", "0x8"}).out, "89");
  EXPECT_EQ(RunCapsule({"cat", At("i"), "sub/file", "--offset", "08"}).out, "89");
  EXPECT_EQ(RunCapsule({"cat", At("i"), "caf\xe9"}).out, "latin");
}

TEST_F(OutputTest, TalkGoesToStandardErrorAndCanBeSilenced) {
  const CommandResult loud = RunCapsule({"create", At("j"), At("in")});
  EXPECT_EQ(loud.out, "");
  EXPECT_NE(loud.err.find("4 files and 2 folders"), std::string::npos) << loud.err;
  EXPECT_EQ(loud.err.find('\r'), std::string::npos);  // no progress where nobody watches
  EXPECT_EQ(RunCapsule({"create", At("j"), At("in"), "--quiet"}).err, "");
  EXPECT_EQ(RunCapsule({"-q", "create", At("j"), "--", At("in")}).err, "");
}

// Control characters as single bytes and as UTF-8, in what is shown and in every kind of message.
TEST_F(OutputTest, NoNameMovesTheCursor) {
  const auto expectNone = [](const std::string& text) {
    EXPECT_EQ(text.find_first_of("\x1b\x07\x7f\x9b"), std::string::npos) << text;
  };
  fs::create_directories(At("out"));
  const std::pair<std::string, std::string> names[] = {
      {"\x9b\xe9", "\\x9b\xc3\xa9"},
      {"\x1b]0;t\x07\x7f\xc2\x9b\xc3\x89", "\\x1b]0;t\\x07\\x7f\\x9b\xc3\x89"}};
  for (const auto& [name, shown] : names) {
    WriteFile(At("in/" + name), "x");
    WriteFile(At("in/" + name + "."), "no image holds this name");
    const std::string image = Quoted(At(name));
    std::string script;
    for (const std::string& words :
         {"create " + image + " " + Quoted(At("in")), "list " + image, "list -R --json " + image,
          "list " + image + " " + Quoted(name + "/x"), "list " + Quoted(At("in/" + name)),
          "info " + image, "verify " + image, "index " + image, "inspect " + image, Quoted(name),
          "extract " + image + " -C " + Quoted(At("out")),
          "extract " + image + " -C " + Quoted(At("out/" + name))}) {
      script += Quoted(CAPSULE_COMMAND) + " " + words + "\n";
    }
    WriteFile(At("script"), script);
    expectNone(RunShell("sh " + Quoted(At("script"))).err);
    const CommandResult terminal =
        RunShell("command -v script >/dev/null || exit 77; script -qec " +
                 Quoted("sh " + At("script")) + " /dev/null");
    if (terminal.status == 77) GTEST_SKIP() << "no script(1) to make a terminal";
    std::string seen = terminal.out;
    EXPECT_NE(seen.find("\n0:/" + shown + "\r"), std::string::npos) << seen;
    const std::string progress = "\x1b[K";
    for (size_t at = 0; (at = seen.find(progress)) != std::string::npos;) seen.erase(at, 3);
    expectNone(seen);
  }
}

TEST_F(OutputTest, InspectShowsNoControlBytesAnywhere) {
  const CommandResult text = RunCapsule({"inspect", At("i")});
  EXPECT_NE(text.out.find("0:/bell\\x07"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("(100.00 %)"), std::string::npos);
}

}  // namespace
}  // namespace capsule::test
