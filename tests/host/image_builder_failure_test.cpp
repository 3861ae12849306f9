#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

#include "capsule/host/image_builder.h"
#include "tests/host/sections/scanned_tree.h"
#include "tests/support/entries.h"
#include "tests/support/process_limit.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

std::vector<std::string> Names(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

// A folder with sources, and one with an image that must survive.
struct Place {
  TempDir folder;
  std::string source = folder / "source";
  std::string target = folder / "target";
  std::string image = target + "/x.cap";
  std::string old;  // its bytes

  Place() {
    fs::create_directories(source);
    fs::create_directories(target);
    Build();
    old = test::ReadFile(image);
  }
  void Put(const std::string& name, const std::string& text = "x") const {
    test::WriteFile(source + "/" + name, text);
  }
  BuildReport Build(BuildOptions options = {.level = 0}) const {
    ImageBuilder builder(image, std::move(options));
    builder.AddDirectory(source);
    return builder.Finish();
  }
  void ExpectUntouched() const {
    EXPECT_TRUE(test::ReadFile(image) == old);
    EXPECT_EQ(Names(target), std::vector<std::string>{"x.cap"});
  }
};

TEST(ImageBuilderFailure, NothingIsLeftOfABuildThatIsNotFinished) {
  const Place place;
  place.Put("f");
  {
    ImageBuilder builder(place.image);
    builder.AddDirectory(place.source);
    EXPECT_EQ(Names(place.target).size(), 2u);
  }
  place.ExpectUntouched();

  const auto add = [&](const char* name, int times = 1) {
    ImageBuilder builder(place.image);
    for (int i = 0; i < times; ++i) builder.AddDirectory(place.source + name);
  };
  const std::string nowhere = place.folder / "none/x.cap";
  const std::pair<std::function<void()>, std::string> failures[] = {
      {[&] { add("/none"); }, place.source + "/none: no such file or directory"},
      {[&] { add("/f"); }, place.source + "/f: not a directory"},
      {[&] { add("", 11); }, place.source + ": an image holds 10 folders at most"},
      {[&] { return ImageBuilder(place.image).Finish(); }, place.image + ": no folder was added"},
      {[&] { ImageBuilder x(place.target); }, place.target + ": is not a regular file"},
      {[&] { ImageBuilder x(nowhere); },
       nowhere + ": cannot be created: no such file or directory"},
      {[&] { return place.Build({.level = 10}); },
       place.image + ": level is 10, 0 to 9 are possible"},
  };
  for (const auto& [work, error] : failures) EXPECT_EQ(test::ErrorOf(work), error);
  place.ExpectUntouched();
}

TEST(ImageBuilderFailure, FilesUnderWayLeaveTheWalkItsDescriptors) {
  const Place place;
  std::string deep = "d";
  for (int i = 0; i < 40; ++i) deep += "/d";
  fs::create_directories(place.source + "/" + deep);
  std::vector<BuildItem> items{{.path = "z", .source = place.source}};
  const auto isEnough = [&](rlim_t descriptors) {
    try {
      const test::ProcessLimit limit(RLIMIT_NOFILE, descriptors);
      ImageBuilder builder(place.image, {.level = 0, .jobs = 1});
      builder.AddDirectory(place.source);
      builder.AddItems(items);
      return builder.Finish().problems.empty();
    } catch (const ShortageError&) {
      return false;
    }
  };
  // Sanitizers need descriptors of their own to look at a type for the first time.
  EXPECT_THROW(FileSource(place.source + "/none"), Error);
  ASSERT_TRUE(isEnough(256));
  rlim_t enough = 1;
  while (!isEnough(enough)) ++enough;
  for (std::string at = deep; at != "d"; at.resize(at.size() - 2)) place.Put(at + "/z");
  for (int i = 0; i < 12; ++i) {
    const std::string name = std::to_string(i);
    place.Put(name);
    items.push_back({.path = name, .source = place.source + "/" + name});
  }
  EXPECT_TRUE(isEnough(enough));
}

TEST(ImageBuilderFailure, CancelStopsTheBuild) {
  const Place place;
  for (int i = 0; i < 100; ++i) place.Put(std::to_string(i));
  uint64_t files = 0;
  ImageBuilder* running = nullptr;
  const auto onProgress = [&](const Progress& at) {
    files = at.files;
    if (files == 10) running->Cancel();
  };
  {
    ImageBuilder builder(place.image, {.onProgress = onProgress});
    running = &builder;
    EXPECT_EQ(test::ErrorOf([&] { builder.AddDirectory(place.source); }),
              place.image + ": cancelled");
    EXPECT_EQ(files, 10u);
    EXPECT_THROW(builder.Finish(), Error);
  }
  place.ExpectUntouched();
}

TEST(ImageBuilderFailure, ItemsThatVanishAreNamedAndLeftOut) {
  const Place place;
  for (const char* name : {"a", "m/inner", "z"}) fs::create_directories(place.source + "/" + name);
  for (const char* name : {"a/1", "b", "c", "m/2", "z/3"}) place.Put(name, name);
  const auto onPath = [&](const std::string& path) {
    if (path == "a/1") {
      fs::remove(place.source + "/c");
      fs::remove_all(place.source + "/m");
      place.Put("m", "now a file");
    }
    return false;
  };
  const BuildReport report = place.Build({.level = 0, .leavesOut = onPath});
  ASSERT_EQ(report.problems.size(), 2u);
  EXPECT_EQ(report.problems[0].path, place.source + "/c");
  EXPECT_EQ(report.problems[0].reason, "no such file or directory");
  EXPECT_EQ(report.problems[1].path, place.source + "/m");
  EXPECT_EQ(report.problems[1].reason, "changed while it was read");
  fs::remove(place.source + "/m");
  EXPECT_EQ(test::ScannedTree(place.image), test::FolderTree(place.source));
}

// Whatever a path leads to by and by, what was below the folder goes in, or is named.
TEST(ImageBuilderFailure, NothingFromOutsideGoesIn) {
  const Place place;
  const std::string outside = place.folder / "outside";
  std::string deep = "deep";
  for (int i = 0; i < 40; ++i) deep += "/d";
  for (const std::string& folder : {place.source + "/m/sub", place.source + "/" + deep, outside}) {
    fs::create_directories(folder);
  }
  for (const char* name : {"m/f", "m/sub/g", "z"}) place.Put(name, "inside");
  for (std::string at = deep; at != "deep"; at = fs::path(at).parent_path()) place.Put(at + "/z");
  test::Tree expected = test::FolderTree(place.source);
  test::WriteFile(outside + "/f", "secret");
  test::WriteFile(outside + "/z", "secret");
  const fs::path moved = fs::path(place.source + "/" + deep).parent_path().parent_path();
  const auto onPath = [&](const std::string& path) {
    if (path == deep + "/z") fs::rename(moved, outside + "/deep");
    if (path == "m/f") {
      fs::rename(place.source + "/m", outside + "/m");
      fs::create_symlink(outside, place.source + "/m");
    }
    return false;
  };
  const BuildReport report = place.Build({.level = 0, .leavesOut = onPath});
  // The way back leads elsewhere up to the folders that are kept open.
  for (const BuildProblem& problem : report.problems) {
    EXPECT_EQ(problem.reason, "changed while it was read");
    expected.erase("0:" + problem.path.substr(place.source.size() + 1));
  }
  EXPECT_GE(report.problems.size(), 5u);
  EXPECT_LE(report.problems.size(), 8u);
  EXPECT_EQ(test::ScannedTree(place.image), expected);
}

// Everything behind an item that failed lies where it would have without it.
TEST(ImageBuilderFailure, FilesThatGrowAreNamedAndLeftOut) {
  const Place place;
  fs::create_directories(place.source + "/d/e");
  place.Put("d/e/1", "in the depth");
  place.Put("d/growing", std::string(8 << 20, 'g'));
  place.Put("d/z", "behind");
  std::atomic<bool> stop = false;
  std::thread writer([&] {
    const int file = ::open((place.source + "/d/growing").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    while (!stop) EXPECT_EQ(::write(file, "more", 4), 4);
    ::close(file);
  });
  // On a busy machine the writer may sleep through the reading of the whole file: try again then.
  BuildReport report;
  for (int attempt = 0; attempt < 100 && report.problems.empty(); ++attempt) report = place.Build();
  stop = true;
  writer.join();
  ASSERT_EQ(report.problems.size(), 1u);
  EXPECT_EQ(report.problems[0].path, place.source + "/d/growing");
  EXPECT_EQ(report.problems[0].reason, "changed while it was read");
  fs::remove(place.source + "/d/growing");
  EXPECT_EQ(test::ScannedTree(place.image), test::FolderTree(place.source));
}

TEST(ImageBuilderFailure, UnreadableItemsAreNamedAndLeftOut) {
  const Place place;
  for (const char* name : {"closed", "open"}) fs::create_directories(place.source + "/" + name);
  for (const char* name : {"closed/1", "open/2", "secret", "t"}) place.Put(name, name);
  fs::permissions(place.folder.Path(), fs::perms(0777));
  fs::permissions(place.target, fs::perms(0777));
  ::chmod((place.source + "/closed").c_str(), 0);
  ::chmod((place.source + "/secret").c_str(), 0);
  const uid_t user = ::geteuid();
  std::string refusal;
  BuildReport report;
  const auto build = [&] {
    ASSERT_TRUE(user != 0 || ::seteuid(65534) == 0);
    const std::string error = test::ErrorOf([&] { report = place.Build(); });
    ASSERT_TRUE(user != 0 || ::seteuid(0) == 0);
    EXPECT_EQ(error, refusal);
  };
  build();
  // A folder that cannot be opened cannot be synced either.
  const std::string image = test::ReadFile(place.image);
  fs::permissions(place.target, fs::perms(0333));
  refusal = place.image + ": cannot be created: permission denied";
  build();
  fs::permissions(place.target, fs::perms(0777));
  EXPECT_EQ(test::ReadFile(place.image), image);
  EXPECT_EQ(test::ScannedTree(place.image),
            (test::Tree{{"0:open", "<dir>"}, {"0:open/2", "open/2"}, {"0:t", "t"}}));
  ASSERT_EQ(report.problems.size(), 2u);
  EXPECT_EQ(report.problems[0].path, place.source + "/closed");
  EXPECT_EQ(report.problems[1].path, place.source + "/secret");
  EXPECT_EQ(report.problems[1].reason, "permission denied");
  ::chmod((place.source + "/closed").c_str(), 0700);
}

TEST(ImageBuilderFailure, FilesOfTwoGibibytesAreLeftOut) {
  const Place place;
  place.Put("f");
  fs::resize_file(place.source + "/f", uint64_t{1} << 31);
  const BuildReport report = place.Build();
  ASSERT_EQ(report.problems.size(), 1u);
  EXPECT_EQ(report.problems[0].reason, "file has 2147483648 bytes, 2147483647 are possible");
}

// A file that the disk has no room for, at any size of the disk.
TEST(ImageBuilderFailure, AFullDiskLeavesTheOldImage) {
  const Place place;
  place.Put("a", std::string(30'000, 'a'));
  place.Put("b", std::string(100, 'b'));
  for (rlim_t room = 0; room < 43'000; room += 1'000) {
    const std::string error = test::ErrorOf([&] {
      const test::ProcessLimit limit(RLIMIT_FSIZE, room);
      return place.Build();
    });
    EXPECT_NE(error.find("file too large"), std::string::npos) << room << ": " << error;
    place.ExpectUntouched();
  }
}

TEST(ImageBuilderFailure, AKilledBuildLeavesTheOldImageAndIsCleanedUp) {
  const Place place;
  for (int i = 0; i < 50; ++i) place.Put(std::to_string(i));
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    place.Build({.onProgress = [](const Progress& at) {
      if (at.files == 20) ::raise(SIGKILL);
    }});
    ::_exit(1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  EXPECT_TRUE(test::ReadFile(place.image) == place.old);
  ASSERT_EQ(Names(place.target).size(), 2u);
  EXPECT_TRUE(Names(place.target)[0].starts_with(".x.cap.capsule-tmp-"));

  {
    ImageBuilder of(place.folder / "of.cap");
    of.AddDirectory(place.target);
    const BuildReport report = of.Finish();
    EXPECT_EQ(report.files, 1u) << "the image, not what is left of the build";
    ASSERT_EQ(report.unfinished.size(), 1u);
    EXPECT_EQ(report.unfinished[0].path, place.target + "/" + Names(place.target)[0]);
  }
  test::WriteFile(place.target + "/.x.cap.capsule-tmp-and.more", "somebody else's");
  ImageBuilder live(place.folder / "target/another.cap");
  EXPECT_TRUE(fs::remove(place.target + "/.x.cap.capsule-tmp-and.more"));
  ASSERT_EQ(Names(place.target).size(), 2u) << "the dead one is gone, the live one there";
  const std::string other = Names(place.target)[0];
  {
    ImageBuilder second(place.image);
    EXPECT_EQ(Names(place.target).size(), 3u) << "a live one is left alone";
  }
  EXPECT_EQ(Names(place.target)[0], other);
  live.AddDirectory(place.source);
  static_cast<void>(live.Finish());
  EXPECT_EQ(Names(place.target), (std::vector<std::string>{"another.cap", "x.cap"}));
}

}  // namespace
}  // namespace capsule::host
