#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <sstream>

#include "tests/cli/command_runner.h"
#include "tests/support/source_tree.h"

namespace capsule::test {
namespace {

namespace fs = std::filesystem;

class RoundTripTest : public CommandTest {
 protected:
  void Folder(const std::string& name) const { fs::create_directories(At(name)); }

  void Put(const std::string& name, const std::string& bytes) const {
    fs::create_directories(fs::path(At(name)).parent_path());
    WriteFile(At(name), bytes);
  }

  void ExpectQuietSuccess(const std::vector<std::string>& arguments) const {
    const CommandResult result = RunCapsule(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
  }

  // What is below "in" comes out of an image made so.
  void ExpectRoundTrip(std::vector<std::string> levelAndSources) const {
    levelAndSources.insert(levelAndSources.begin(), {"create", "-q", At("i")});
    ExpectQuietSuccess(levelAndSources);
    fs::remove_all(At("out"));
    Folder("out");
    ExpectQuietSuccess({"-q", "extract", At("i"), "-C", At("out")});
    const CommandResult diff = RunShell("diff -r " + Quoted(At("in")) + " " + Quoted(At("out")));
    EXPECT_EQ(diff.status, 0) << diff.out.substr(0, 2000) << diff.err.substr(0, 2000);
  }
};

TEST_F(RoundTripTest, RealTreesComeBackAtEveryKindOfLevel) {
  RunShell("cp -a /usr/include/linux/. " + Quoted(At("in")));
  for (const size_t size : {0, 1, 511, 512, 513, 8191, 8192, 8193, 16384, 100000}) {
    Put("in/sizes/" + std::to_string(size), MixedBytes(size, static_cast<uint32_t>(size)));
    Put("in/sizes/" + std::to_string(size) + ".zip", MixedBytes(size, 1));
  }
  Folder("in/empty/folder");
  RunShell("find " + Quoted(At("in")) + " ! -type f ! -type d -delete");
  for (const char* level : {"-0", "-1", "-9", "-5"}) ExpectRoundTrip({level, At("in")});
  ExpectQuietSuccess({"create", "-q", At("again"), At("in")});
  EXPECT_EQ(ReadFile(At("again")), ReadFile(At("i")));
  for (const auto& entry : fs::recursive_directory_iterator(At("in"))) {
    struct stat before {};
    struct stat after {};
    const auto copy = fs::path(At("out")) / entry.path().lexically_relative(At("in"));
    ASSERT_EQ(stat(entry.path().c_str(), &before) + stat(copy.c_str(), &after), 0);
    EXPECT_LE(std::abs(before.st_mtime - after.st_mtime), 2) << copy;
  }
}

TEST_F(RoundTripTest, ThreeFoldersBecomeThreePartitions) {
  for (const std::string n : {"0", "1", "2"}) {
    Put("in/" + n + "/deep/er/file", MixedBytes(20000, 3));
    Put("in/" + n + "/top" + n, n);
  }
  ExpectRoundTrip({At("in/0"), At("in/1"), At("in/2")});
  fs::remove_all(At("out"));
  Folder("out");
  ExpectQuietSuccess({"extract", "-q", At("i"), "2:/deep", "1:\\TOP1", "-C", At("out")});
  EXPECT_EQ(RunShell("cd " + Quoted(At("out")) + "; find * -type f | sort").out,
            "1/top1\n2/deep/er/file\n");
}

TEST_F(RoundTripTest, OddNamesComeBackExactly) {
  std::istringstream odd(
      "Makefile/README/readme.txt/.gitignore/.a.b/a..b/x+y[1].tar.gz/a b  c/ leading/"
      "\xc3\xbcml\xc3\xa4ut.\xe6\x97\xa5/\xff\xfe latin/new\nline/tab\there/\x1b[31mred/con/"
      "\xe5/\xe5 x/Case/case/CASE/cASE/-dash/a:b/1:x/*?\"<>|.x/~/a~1/A~1");
  std::vector<std::string> names;
  for (std::string name; std::getline(odd, name, '/');) names.push_back(name);
  for (const size_t length : {1, 8, 12, 13, 14, 26, 27, 255})
    names.push_back(std::string(length, 'n'));
  for (int i = 0; i < 2000; ++i) names.push_back("samestart" + std::to_string(i) + ".txt");
  for (const std::string& name : names) Put("in/" + name, "content of " + name);
  ExpectRoundTrip({At("in")});
  EXPECT_EQ(RunCapsule({"cat", At("i"), "0:/cASE"}).out, "content of cASE");
}

TEST_F(RoundTripTest, ExcludedItemsStayOutAndNamesThatCannotBeStoredAreNamed) {
  for (const char* name : {"in/good", "in/a.o", "in/sub/b.o", "in/sub/keep", "in/build/x"}) {
    Put(name, "1");
  }
  Put("in/dot.", "2");
  Put("in/bad\\name/below", "3");
  fs::create_symlink("good", At("in/link"));
  const CommandResult result =
      RunCapsule({"create", "--exclude", "*.o", "--exclude", "build", At("i"), At("in")});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("in/dot.: "), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("bad\\name: "), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("1 link or special file left out"), std::string::npos) << result.err;
  EXPECT_EQ(RunCapsule({"list", "-R", At("i")}).out, "0:/good\n0:/sub/\n0:/sub/keep\n");
}

}  // namespace
}  // namespace capsule::test
