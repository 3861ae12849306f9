#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "tests/cli/command_runner.h"
#include "tests/support/json.h"

namespace capsule::test {
namespace {

namespace fs = std::filesystem;

class BadInputTest : public CommandTest {
 protected:
  BadInputTest() {
    fs::create_directories(At("in/sub"));
    WriteFile(At("in/a"), "content of a");
    WriteFile(At("in/sub/b"), std::string(20000, 'b'));
    EXPECT_EQ(RunCapsule({"create", "-q", At("i"), At("in")}).status, 0);
    m_image = ReadFile(At("i"));
  }

  // Exit status 2, one line that has all of `parts`, nothing on standard output.
  static void ExpectFailure(const CommandResult& result, const std::vector<std::string>& parts) {
    EXPECT_EQ(result.status, 2) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.err.substr(0, 9), "capsule: ");
    EXPECT_LT(result.err.size(), 300u) << result.err;
    for (const std::string& part : parts) {
      EXPECT_NE(result.err.find(part), std::string::npos) << part << " in " << result.err;
    }
    EXPECT_EQ(result.out, "");
  }

  void ExpectImageAsItWas() const {
    EXPECT_TRUE(ReadFile(At("i")) == m_image);
    for (const auto& entry : fs::directory_iterator(m_directory.Path())) {
      EXPECT_EQ(entry.path().filename().string().find("capsule-tmp"), std::string::npos);
    }
  }

  std::string m_image;
};

TEST_F(BadInputTest, ALimitOnTheSizeOfFilesIsAnErrorLikeAFullDisk) {
  WriteFile(At("in/large"), std::string(100000, 'x'));
  ExpectFailure(
      RunShell("ulimit -f 16; capsule create -0 " + Quoted(At("i")) + " " + Quoted(At("in"))),
      {At("i"), "file too large"});
  ExpectImageAsItWas();
}

TEST_F(BadInputTest, WrongArguments) {
  ExpectFailure(RunCapsule({}), {"a command is required"});
  ExpectFailure(RunCapsule({"frobnicate"}), {"frobnicate", "capsule --help"});
  ExpectFailure(RunCapsule({"create", "-10", At("i"), At("in")}), {"-1", "-0"});
  ExpectFailure(RunCapsule({"create", "-2", "-3", At("i"), At("in")}), {"-2", "-3"});
  ExpectFailure(RunCapsule({"create", At("i")}), {"DIR is required"});
  ExpectFailure(RunCapsule({"create", "-x", At("i"), At("in")}), {"-x"});
  ExpectFailure(RunCapsule({"cat", At("i"), "a", "--length", "much"}), {"much"});
  for (const char* number : {"-1", "1e3", "0x", "", "99999999999999999999"}) {
    ExpectFailure(RunCapsule({"cat", At("i"), "a", "--offset", number}), {"not a number"});
  }
  ExpectFailure(RunCapsule({"list", At("i"), "a", "b"}), {"b"});
  ExpectImageAsItWas();
}

TEST_F(BadInputTest, SourcesThatCannotBeUsedLeaveTheOldImage) {
  ExpectFailure(RunCapsule({"create", At("i"), At("missing")}), {"missing", "no such file"});
  ExpectFailure(RunCapsule({"create", At("i"), At("in"), At("in/a")}), {"in/a"});
  ExpectFailure(RunCapsule({"create", At("nowhere/i"), At("in")}), {"nowhere"});
  std::vector<std::string> eleven = {"create", At("i")};
  eleven.insert(eleven.end(), 11, At("missing"));
  ExpectFailure(RunCapsule(eleven), {"10 folders at most"});
  WriteFile(At("notes"), "my notes");
  ExpectFailure(RunCapsule({"create", At("notes"), At("in")}),
                {At("notes") + ": not an image", "--force"});
  EXPECT_EQ(ReadFile(At("notes")), "my notes");
  EXPECT_EQ(RunCapsule({"create", "-q", "--force", At("notes"), At("in")}).err, "");
  ExpectImageAsItWas();
  EXPECT_FALSE(fs::exists(At("nowhere")));
}

TEST_F(BadInputTest, WhatIsLeftOutIsNamedAlsoWhenTheImageIsNotMade) {
  WriteFile(At("in/what?"), "x");
  const CommandResult result = RunCapsule({"create", At("i"), At("in"), At("missing")});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "capsule: " + At("in/what?") +
                            ": an image cannot hold a name that ends with a '?'\ncapsule: " +
                            At("missing") + ": no such file or directory\n");
  ExpectImageAsItWas();
}

TEST_F(BadInputTest, TheImageDoesNotSwallowItself) {
  ASSERT_EQ(RunCapsule({"create", At("in/inside"), At("in")}).status, 0);
  fs::permissions(At("in/a"), fs::perms(0755));
  fs::create_hard_link(At("in/inside"), At("in/sub/kept"));
  const CommandResult result = RunCapsule({"create", At("in/inside"), At("in")});
  EXPECT_EQ(result.status, 0) << result.err;
  for (const std::string& part : {At("in/inside") + ": left out", At("in/sub/kept") + ": left out",
                                  std::string("; 2 names of the old image left out\n"),
                                  At("in/inside") + ": not stored: permissions of 1 item\n"}) {
    EXPECT_NE(result.err.find(part), std::string::npos) << part << " in " << result.err;
  }
  EXPECT_EQ(RunCapsule({"list", "-R", At("in/inside")}).out, "0:/a\n0:/sub/\n0:/sub/b\n");
}

TEST_F(BadInputTest, FilesThatAreNoImages) {
  for (const std::string command : {"list", "info", "extract"}) {
    ExpectFailure(RunCapsule({command, At("missing")}), {"missing", "no such file"});
    ExpectFailure(RunCapsule({command, At("in")}), {});
    ExpectFailure(RunCapsule({command, At("in/a")}), {"not an image", "12 bytes"});
    ExpectFailure(RunCapsule({command, At("in/sub/b")}), {"not an image"});
  }
  ExpectFailure(RunCapsule({"cat", At("in/sub/b"), "x"}), {"not an image"});
  ExpectFailure(RunCapsule({"index", At("in/sub/b")}), {At("in/sub/b")});
  ExpectFailure(RunCapsule({"verify", At("in/sub/b")}), {At("in/sub/b")});
  ExpectFailure(RunCapsule({"verify", At("missing")}), {"missing"});
  ExpectFailure(RunCapsule({"inspect", At("missing")}), {"missing"});
  EXPECT_EQ(RunCapsule({"inspect", At("in/sub/b")}).status, 1);
  EXPECT_EQ(ReadFile(At("in/sub/b")), std::string(20000, 'b'));
}

TEST_F(BadInputTest, ImagesCutShort) {
  for (const size_t length : {size_t{0}, size_t{100}, size_t{7560}, size_t{9000}}) {
    WriteFile(At("cut"), m_image.substr(0, length));
    ExpectFailure(RunCapsule({"list", At("cut")}), {At("cut")});
  }
  WriteFile(At("cut"), m_image.substr(0, m_image.size() - 1));
  const CommandResult rest = RunCapsule({"list", At("cut")});
  EXPECT_EQ(rest.status, 1);
  EXPECT_EQ(rest.out, "0:/a\n0:/sub/\n");
  EXPECT_NE(rest.err.find("opened by scanning, read-only"), std::string::npos) << rest.err;
  const CommandResult indexed = RunCapsule({"index", "-q", At("cut")});
  EXPECT_EQ(indexed.status, 0) << indexed.err;
  EXPECT_EQ(indexed.err, "");
  // All is as it was but the label of the partition, which only the index knew.
  const size_t index = ParseJson(RunCapsule({"info", "--json", At("i")}).out)["index_offset"];
  EXPECT_EQ(ReadFile(At("cut")).substr(0, index), m_image.substr(0, index));
  EXPECT_EQ(RunCapsule({"verify", At("cut")}).status, 0);
}

TEST_F(BadInputTest, PathsThatAreNotInTheImage) {
  ExpectFailure(RunCapsule({"list", At("i"), "0:/nope"}), {"0:/nope: not in the image"});
  ExpectFailure(RunCapsule({"cat", At("i"), "3:/a"}), {"3:/a: not in the image"});
  ExpectFailure(RunCapsule({"cat", At("i"), "sub"}), {"is a directory"});
  ExpectFailure(RunCapsule({"cat", At("i"), "a", "--offset", "13"}), {"offset is 13", "12 bytes"});
  fs::create_directory(At("out"));
  ExpectFailure(RunCapsule({"extract", At("i"), "nope", "-C", At("out")}),
                {"nope: not in the image"});
  EXPECT_TRUE(fs::is_empty(At("out")));
  const CommandResult some = RunCapsule({"extract", "-q", At("i"), "nope", "a", "-C", At("out")});
  EXPECT_EQ(some.status, 1) << some.err;
  EXPECT_EQ(ReadFile(At("out/a")), "content of a");
}

TEST_F(BadInputTest, ExistingFilesAreKeptUnlessForced) {
  fs::create_directories(At("out/sub"));
  WriteFile(At("out/a"), "mine");
  const CommandResult kept = RunCapsule({"extract", "-q", At("i"), "-C", At("out")});
  EXPECT_EQ(kept.status, 1);
  EXPECT_NE(kept.err.find("0:/a: exists in the target folder, kept\n"), std::string::npos);
  EXPECT_EQ(ReadFile(At("out/a")), "mine");
  EXPECT_EQ(ReadFile(At("out/sub/b")), std::string(20000, 'b'));
  EXPECT_EQ(RunCapsule({"extract", "-q", "--force", At("i"), "-C", At("out")}).status, 0);
  EXPECT_EQ(ReadFile(At("out/a")), "content of a");
  ExpectFailure(RunCapsule({"extract", At("i"), "-C", At("missing")}), {"missing", "no such file"});
  fs::create_directory_symlink(At("out"), At("link"));
  ExpectFailure(RunCapsule({"extract", At("i"), "-C", At("link")}), {"is a link"});
}

TEST_F(BadInputTest, DamageIsNamedAndTheRestComesOut) {
  const CommandResult clean = RunCapsule({"verify", At("i")});
  EXPECT_EQ(clean.status, 0) << clean.err;
  EXPECT_EQ(clean.out, "");
  EXPECT_NE(clean.err.find("2 files read, 5 check values compared, no fault"), std::string::npos);
  const size_t data = m_image.find(std::string("\x03\x01\x00\x02\x00\x00", 6));  // of "a"
  ASSERT_NE(data, std::string::npos);
  m_image[data] = 9;
  WriteFile(At("i"), m_image);
  fs::create_directory(At("out"));
  const CommandResult result = RunCapsule({"extract", "-q", At("i"), "-C", At("out")});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find(At("i") + ": 0:/a: data block at 0x"), std::string::npos) << result.err;
  EXPECT_FALSE(fs::exists(At("out/a")));
  EXPECT_EQ(ReadFile(At("out/sub/b")), std::string(20000, 'b'));
  ExpectFailure(RunCapsule({"cat", At("i"), "a"}), {"0:/a: data block at 0x"});
  const CommandResult verified = RunCapsule({"verify", "--json", At("i")});
  EXPECT_EQ(verified.status, 1);
  const auto faults = ParseJsonLines(verified.out);
  EXPECT_EQ(faults.front()["offset"], data);
  EXPECT_EQ(faults.front()["path"], "0:/a");
  EXPECT_EQ(faults.back()["faults"], faults.size() - 1);
  EXPECT_EQ(RunCapsule({"inspect", At("i")}).status, 1);
}

TEST_F(BadInputTest, OutputThatCannotBeWritten) {
  const std::string image = Quoted(At("i"));
  WriteFile(At("damaged"), m_image.substr(0, 9000) + std::string(m_image.size() - 9000, 'x'));
  const std::string damaged = Quoted(At("damaged"));
  for (const std::string& words :
       {"cat " + image + " sub/b", "cat " + image + " a", "info " + image, "info --json " + image,
        "list " + image, "list -lR " + image, "list --json " + image, "inspect " + image,
        "inspect --json " + image, "verify --json " + image, "verify " + damaged,
        "extract --json " + image + " -C " + Quoted(At("in")), std::string("--help"),
        std::string("--version"), std::string("create --help")}) {
    const CommandResult full = RunShell("capsule " + words + " >/dev/full");
    EXPECT_EQ(full.status, 2) << words;
    EXPECT_NE(full.err.find("standard output: cannot write: no space left"), std::string::npos)
        << words << ": " << full.err;
  }
  const CommandResult closed = RunShell("capsule list " + image + " >&-; echo $? >&2");
  EXPECT_NE(closed.err.find("cannot write"), std::string::npos) << closed.err;
  EXPECT_NE(closed.err.find("\n2\n"), std::string::npos) << closed.err;
  // With no standard stream open the image must not become one of them.
  RunShell("capsule create " + image + " " + Quoted(At("in")) + " <&- >&- 2>&-");
  ExpectImageAsItWas();
}

}  // namespace
}  // namespace capsule::test
