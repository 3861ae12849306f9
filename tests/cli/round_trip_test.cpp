#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <random>

#include "tests/cli/command_runner.h"

namespace capsule::test {
namespace {

namespace fs = std::filesystem;

class RoundTripTest : public testing::Test {
 protected:
  std::string At(const std::string& name) const { return m_Directory / name; }

  void Folder(const std::string& name) const { fs::create_directories(At(name)); }

  void Put(const std::string& name, const std::string& bytes) const {
    fs::create_directories(fs::path(At(name)).parent_path());
    WriteFile(At(name), bytes);
  }

  // Text that compresses, with runs that do not.
  static std::string Content(unsigned seed, size_t size) {
    std::mt19937 random(seed);
    std::string text;
    while (text.size() < size) {
      if (random() % 4 == 0)
        text += static_cast<char>(random());
      else
        text += "line " + std::to_string(random() % 50) + "\n";
    }
    text.resize(size);
    return text;
  }

  void ExpectSame(const std::string& a, const std::string& b) const {
    const CommandResult diff = RunShell("diff -r " + Quoted(At(a)) + " " + Quoted(At(b)));
    EXPECT_EQ(diff.status, 0) << diff.out.substr(0, 2000) << diff.err.substr(0, 2000);
  }

  void ExpectQuietSuccess(const std::vector<std::string>& arguments) const {
    const CommandResult result = RunCapsule(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
  }

  TempDir m_Directory;
};

TEST_F(RoundTripTest, RealTreesComeBackAtEveryKindOfLevel) {
  Folder("in");
  RunShell("cp -a /usr/include/linux/. " + Quoted(At("in")));
  for (const size_t size : {0, 1, 511, 512, 513, 8191, 8192, 8193, 16384, 100000}) {
    Put("in/sizes/" + std::to_string(size), Content(static_cast<unsigned>(size), size));
    Put("in/sizes/" + std::to_string(size) + ".zip", Content(1, size));
  }
  Folder("in/empty/folder");
  RunShell("find " + Quoted(At("in")) + " ! -type f ! -type d -delete");
  for (const std::string level : {"-0", "-1", "-5", "-9"}) {
    Folder("out" + level);
    ExpectQuietSuccess({"create", "-q", level, At("i" + level), At("in")});
    ExpectQuietSuccess({"-q", "extract", At("i" + level), "-C", At("out" + level)});
    ExpectSame("in", "out" + level);
  }
  ExpectQuietSuccess({"create", "-q", At("again"), At("in")});
  EXPECT_EQ(ReadFile(At("again")), ReadFile(At("i-5")));
  for (const auto& entry : fs::recursive_directory_iterator(At("in"))) {
    struct stat before {};
    struct stat after {};
    const auto copy = fs::path(At("out-5")) / entry.path().lexically_relative(At("in"));
    ASSERT_EQ(stat(entry.path().c_str(), &before) + stat(copy.c_str(), &after), 0);
    EXPECT_LE(std::abs(before.st_mtime - after.st_mtime), 2) << copy;
  }
}

TEST_F(RoundTripTest, ThreeFoldersBecomeThreePartitions) {
  for (const std::string n : {"0", "1", "2"}) {
    Put("in/" + n + "/deep/er/file", Content(3, 20000));
    Put("in/" + n + "/top" + n, n);
  }
  Folder("out");
  ExpectQuietSuccess({"create", "-q", At("i"), At("in/0"), At("in/1"), At("in/2")});
  ExpectQuietSuccess({"extract", "-q", At("i"), "-C", At("out")});
  ExpectSame("in", "out");
  fs::remove_all(At("out"));
  Folder("out");
  ExpectQuietSuccess({"extract", "-q", At("i"), "2:/deep", "1:\\TOP1", "-C", At("out")});
  EXPECT_TRUE(fs::exists(At("out/2/deep/er/file")));
  EXPECT_TRUE(fs::exists(At("out/1/top1")));
  EXPECT_FALSE(fs::exists(At("out/0")));
  EXPECT_FALSE(fs::exists(At("out/2/top2")));
}

TEST_F(RoundTripTest, OddNamesComeBackExactly) {
  std::vector<std::string> names = {"Makefile",
                                    "README",
                                    "readme.txt",
                                    ".gitignore",
                                    ".a.b",
                                    "a..b",
                                    "x+y[1].tar.gz",
                                    "a b  c",
                                    " leading",
                                    "\xc3\xbcml\xc3\xa4ut.\xe6\x97\xa5",
                                    "\xff\xfe latin",
                                    "new\nline",
                                    "tab\there",
                                    "\x1b[31mred",
                                    "con",
                                    "Case",
                                    "case",
                                    "CASE",
                                    "cASE",
                                    "-dash",
                                    "a:b",
                                    "1:x",
                                    "*?\"<>|.x",
                                    "~",
                                    "a~1",
                                    "A~1"};
  for (const size_t length : {1, 8, 12, 13, 14, 26, 27, 255})
    names.push_back(std::string(length, 'n'));
  for (int i = 0; i < 2000; ++i) names.push_back("samestart" + std::to_string(i) + ".txt");
  for (const std::string& name : names) Put("in/" + name, "content of " + name);
  Folder("out");
  ExpectQuietSuccess({"create", "-q", At("i"), At("in")});
  ExpectQuietSuccess({"extract", "-q", At("i"), "-C", At("out")});
  ExpectSame("in", "out");
  const CommandResult cat = RunCapsule({"cat", At("i"), "0:/cASE"});
  EXPECT_EQ(cat.out, "content of cASE");
}

TEST_F(RoundTripTest, NamesThatCannotBeStoredAreNamedAndTheRestIsKept) {
  Put("in/good", "1");
  Put("in/dot.", "2");
  Put("in/bad\\name/below", "3");
  fs::create_symlink("good", At("in/link"));
  const CommandResult result = RunCapsule({"create", At("i"), At("in")});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("in/dot.: "), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("bad\\name: "), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("1 link or special file left out"), std::string::npos) << result.err;
  EXPECT_EQ(RunCapsule({"list", "-R", At("i")}).out, "0:/good\n");
}

TEST_F(RoundTripTest, AnIndexCanBeBuiltAnew) {
  Put("in/a/b", Content(5, 30000));
  ExpectQuietSuccess({"create", "-q", At("i"), At("in")});
  const std::string whole = ReadFile(At("i"));
  std::string cut = whole;
  cut.resize(cut.size() - 1);
  WriteFile(At("i"), cut);
  EXPECT_EQ(RunCapsule({"list", At("i")}).status, 1);
  ExpectQuietSuccess({"index", "-q", At("i")});
  EXPECT_EQ(ReadFile(At("i")), whole);
}

TEST_F(RoundTripTest, ExcludedItemsStayOut) {
  for (const char* name : {"a.o", "a.c", "sub/b.o", "sub/keep", "build/x"})
    Put(std::string("in/") + name, "x");
  ExpectQuietSuccess({"create", "-q", "--exclude", "*.o", "--exclude", "build", At("i"), At("in")});
  EXPECT_EQ(RunCapsule({"list", "-R", At("i")}).out, "0:/a.c\n0:/sub/\n0:/sub/keep\n");
}

}  // namespace
}  // namespace capsule::test
