#include "capsule/host/image_builder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <limits>

#include "capsule/host/index_writer.h"
#include "capsule/host/verifier.h"
#include "tests/host/sections/scanned_tree.h"
#include "tests/support/bytes.h"
#include "tests/support/entries.h"

namespace capsule::host {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

BuildReport Build(const std::string& image, const std::vector<fs::path>& folders,
                  BuildOptions options = {}) {
  ImageBuilder builder(image, std::move(options));
  for (const fs::path& folder : folders) builder.AddDirectory(folder);
  return builder.Finish();
}

TEST(ImageBuilder, NamesThatDoNotFitAreLeftOutWithAllBelow) {
  const TempDir folder;
  const std::string source = folder / "source";
  fs::create_directories(source + "/dot./inner");
  fs::create_directories(source + "/ok");
  test::WriteFile(source + "/dot./inner/f", "x");
  for (const char* name : {"back\\slash", "what?", "blank ", "tab\t", "ok/line\n", "ok/a\\"})
    test::WriteFile(source + "/" + name, "x");
  test::WriteFile(source + "/ok/?.no\x85", "kept");
  const BuildReport report = Build(folder / "x.cap", {source}, {.level = 0});
  EXPECT_EQ(test::ScannedTree(folder / "x.cap"),
            (test::Tree{{"0:ok", "<dir>"}, {"0:ok/?.no\x85", "kept"}}));
  ASSERT_EQ(report.problems.size(), 7u);
  EXPECT_EQ(report.problems[0].path, source + "/back\\slash");
  EXPECT_EQ(report.problems[0].reason, "an image cannot hold a name with a '\\'");
}

TEST(ImageBuilder, SameTreeSameBytesWhereverItLies) {
  const TempDir folder;
  const std::string here = folder / "here";
  const std::string there = folder / "elsewhere/deeper/there";
  fs::create_directories(here + "/d");
  for (int i = 0; i < 50; ++i) test::WriteFile(here + "/Long name " + std::to_string(i), "x");
  test::WriteFile(here + "/d/f", std::string(20000, 'f'));
  fs::create_directories(fs::path(there).parent_path());
  ASSERT_EQ(std::system(("cp -a '" + here + "' '" + there + "'").c_str()), 0);

  const BuildReport report = Build(folder / "a.cap", {here});
  EXPECT_EQ(report.imageBytes, fs::file_size(folder / "a.cap"));
  Build(folder / "b.cap", {there});
  const std::string first = test::ReadFile(folder / "a.cap");
  EXPECT_EQ(first, test::ReadFile(folder / "b.cap"));
  Build(folder / "a.cap", {here + "/"});
  EXPECT_EQ(first, test::ReadFile(folder / "a.cap"));
}

// Deeper than paths of the system reach.
TEST(ImageBuilder, DeepTreesGoInWithoutRecursion) {
  const TempDir folder;
  const std::string name(100, 'd');
  std::string leaf;
  fs::create_directory(folder / "s");
  test::WriteFile(folder / "s/leaf", "x");
  for (int i = 0; i < 60; ++i) {
    fs::create_directory(folder / "above");
    fs::rename(folder / "s", folder / ("above/" + name));
    fs::rename(folder / "above", folder / "s");
    leaf += name + '/';
  }
  test::WriteFile(folder / "s/z", "behind it all");
  Build(folder / "x.cap", {folder / "s"}, {.level = 0});
  const Image image(folder / "x.cap");
  EXPECT_EQ(test::ReadAll(image, image.Find(leaf + "leaf").value()), "x");
  EXPECT_EQ(test::ReadAll(image, image.Find("z").value()), "behind it all");
}

// Each folder stays a partition of its own number, also when nothing lies in it.
TEST(ImageBuilder, EmptyFoldersAreEmptyPartitions) {
  const TempDir folder;
  for (const char* name : {"a", "b/sub", "c"}) fs::create_directories(folder / name);
  test::WriteFile(folder / "b/sub/f", "x");
  Build(folder / "x.cap", {folder / "a", folder / "b", folder / "c", folder / "b"}, {.level = 0});
  EXPECT_EQ(
      test::ScannedTree(folder / "x.cap"),
      (test::Tree{{"1:sub", "<dir>"}, {"1:sub/f", "x"}, {"3:sub", "<dir>"}, {"3:sub/f", "x"}}));
}

TEST(ImageBuilder, SkipsWhatIsNoFileAndWhatIsExcluded) {
  const TempDir folder;
  const std::string source = folder / "s";
  for (const char* name : {"keep/build", "build/x", "a/b/c"})
    fs::create_directories(source + "/" + name);
  for (const char* name : {"1.o", "1.c", "keep/2.o", "build/x/3", "a/b/c/4", "a/b/5"})
    test::WriteFile(source + "/" + name, "x");
  fs::create_symlink("1.c", source + "/link");
  fs::create_symlink("keep", source + "/folder link");
  ASSERT_EQ(::mkfifo((source + "/fifo").c_str(), 0600), 0);
  const BuildReport report =
      Build(folder / "x.cap", {source}, {.level = 0, .excludes = {"*.o", "/build", "a/*/c"}});
  EXPECT_EQ(test::ScannedTree(folder / "x.cap"), (test::Tree{{"0:1.c", "x"},
                                                             {"0:a", "<dir>"},
                                                             {"0:a/b", "<dir>"},
                                                             {"0:a/b/5", "x"},
                                                             {"0:keep", "<dir>"},
                                                             {"0:keep/build", "<dir>"}}));
  EXPECT_EQ(report.skipped, 3u);
  EXPECT_EQ(report.excluded, 4u);
}

TEST(ImageBuilder, KeepsPermissionsAndLinksOfTheTarget) {
  const TempDir folder;
  fs::create_directories(folder / "s");
  const mode_t mask = ::umask(027);
  Build(folder / "new.cap", {folder / "s"});
  ::umask(mask);
  EXPECT_EQ(static_cast<unsigned>(fs::status(folder / "new.cap").permissions()), 0640u);

  test::WriteFile(folder / "old.cap", "");
  fs::permissions(folder / "old.cap", fs::perms(0604));
  fs::create_directories(folder / "sub");
  fs::create_symlink("old.cap", folder / "link.cap");
  fs::create_symlink(folder / "sub/../away.cap", folder / "sub/dangling.cap");
  fs::create_symlink("sub/dangling.cap", folder / "chain.cap");
  for (const auto& [link, target] : {std::pair{"link.cap", "old.cap"}, {"chain.cap", "away.cap"}}) {
    Build(folder / link, {folder / "s"});
    EXPECT_TRUE(fs::is_symlink(folder / link));
    EXPECT_FALSE(fs::is_symlink(folder / target));
    EXPECT_EQ(test::ReadFile(folder / target), test::ReadFile(folder / "new.cap"));
  }
  EXPECT_TRUE(fs::is_symlink(folder / "sub/dangling.cap"));
  EXPECT_EQ(static_cast<unsigned>(fs::status(folder / "old.cap").permissions()), 0604u);
  fs::create_symlink("loop.cap", folder / "loop.cap");
  EXPECT_EQ(test::ErrorOf([&] { Build(folder / "loop.cap", {folder / "s"}); }),
            folder / "loop.cap: too many levels of symbolic links");
}

TEST(ImageBuilder, OtherFilesThanImagesAreReplacedOnlyByForce) {
  const TempDir folder;
  const std::string target = folder / "notes.txt";
  fs::create_directories(folder / "s");
  for (const std::string& text : {std::string("my notes"), std::string(20000, 'x')}) {
    test::WriteFile(target, text);
    EXPECT_NE(test::ErrorOf([&] { Build(target, {folder / "s"}); }).find(target + ": not an image"),
              std::string::npos);
    EXPECT_EQ(test::ReadFile(target), text);
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.Path()), {}), 2);
    Build(target, {folder / "s"}, {.force = true});
    Build(target, {folder / "s"});  // an image now
  }
}

TEST(ImageBuilder, TheOldImageIsLeftOutUnderAllItsNames) {
  const TempDir folder;
  const std::string source = folder / "s";
  fs::create_directories(source + "/d");
  test::WriteFile(source + "/f", "x");
  Build(source + "/d/x.cap", {source}, {.level = 0});
  fs::create_hard_link(source + "/d/x.cap", source + "/backup.cap");
  const BuildReport report = Build(source + "/d/x.cap", {source}, {.level = 0});
  ASSERT_EQ(report.oldImages.size(), 2u);
  EXPECT_EQ(report.oldImages[0].path, source + "/backup.cap");
  EXPECT_EQ(report.oldImages[1].path, source + "/d/x.cap");
  EXPECT_EQ(test::ScannedTree(source + "/d/x.cap"), (test::Tree{{"0:d", "<dir>"}, {"0:f", "x"}}));
}

TEST(ImageBuilder, TooManyFoldersAreRefusedBeforeTheFirst) {
  const TempDir folder;
  fs::create_directories(folder / "s");
  test::WriteFile(folder / "s/f", "x");
  int inserted = 0;
  ImageBuilder builder(folder / "x.cap", {.onProgress = [&](const Progress&) { ++inserted; }});
  std::vector<fs::path> folders(11, folder / "s");
  EXPECT_EQ(test::ErrorOf([&] { builder.AddDirectories(folders); }),
            folder / "x.cap: an image holds 10 folders at most, these are 11");
  EXPECT_EQ(inserted, 0);
  folders.pop_back();
  builder.AddDirectories(folders);
  EXPECT_EQ(builder.Finish().files, 10u);
}

TEST(ImageBuilder, WhatTheFormatCannotKeepIsCounted) {
  const TempDir folder;
  const std::string source = folder / "s";
  fs::create_directories(source + "/kept");
  fs::create_directories(source + "/closed");
  const std::pair<const char*, unsigned> modes[] = {{"kept", 0755}, {"closed", 0700}, {"a", 0644},
                                                    {"b", 0444},    {"c", 0755},      {"d", 0600}};
  const std::pair<const char*, const char*> times[] = {{"1", "1979-12-31 23:59:59"},
                                                       {"2", "1980-01-01 00:00:00"},
                                                       {"3", "2107-12-31 23:59:59"},
                                                       {"4", "2108-01-01 00:00:00"}};
  for (const auto& [name, time] : times) {
    test::WriteFile(source + "/" + name, "x");
    fs::permissions(source + "/" + name, fs::perms(0644));
    const std::string touch = "touch -d '" + std::string(time) + "Z' '" + source + "/" + name + "'";
    ASSERT_EQ(std::system(touch.c_str()), 0);
  }
  for (const auto& [name, mode] : modes) {
    if (std::string(name).size() == 1) test::WriteFile(source + "/" + name, "x");
    fs::permissions(source + "/" + name, fs::perms(mode));
  }
  fs::create_hard_link(source + "/a", source + "/kept/a");
  const BuildReport report = Build(folder / "x.cap", {source});
  EXPECT_EQ(report.timesChanged, 2u);
  EXPECT_EQ(report.modesDropped, 3u);
  EXPECT_EQ(report.hardLinks, 2u);
}

TEST(ImageBuilder, LabelsBeginWithTheSignature) {
  const TempDir folder;
  fs::create_directories(folder / "s");
  const auto label = [&](const std::string& given) {
    Build(folder / "x.cap", {folder / "s"}, {.label = given});
    return std::string(test::ReadFile(folder / "x.cap").c_str());
  };
  EXPECT_EQ(label(""), "Capsulate");
  EXPECT_EQ(label("my photos"), "Capsulate my photos");
  EXPECT_EQ(label("capsulated"), "capsulated");
  EXPECT_EQ(label(std::string(245, 'x')).size(), 255u);
  EXPECT_THROW(label(std::string(246, 'x')), Error);
}

TEST(ImageBuilder, SourceDateEpochCapsTimes) {
  const TempDir folder;
  fs::create_directories(folder / "s");
  test::WriteFile(folder / "s/F", "x");
  const auto writeDate = [&](const char* epoch) {
    ::setenv("SOURCE_DATE_EPOCH", epoch, 1);
    Build(folder / "x.cap", {folder / "s"});
    return test::U16At(test::ReadFile(folder / "x.cap"), 9616 + 8 + 24);
  };
  EXPECT_EQ(writeDate("946684800"), (2000 - 1980) << 9 | 1 << 5 | 1);
  EXPECT_GT(writeDate("4000000000"), (2025 - 1980) << 9);
  EXPECT_THROW(writeDate("soon"), Error);
  ::unsetenv("SOURCE_DATE_EPOCH");
}

// Single items give the image that a folder would give in which they lie.
TEST(ImageBuilder, ItemsFromAnywhereComeOutLikeThoseOfAFolder) {
  const TempDir folder;
  const std::string bytes(50000, 'b');
  const auto span = std::span(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  constexpr int64_t kTime = 1714564800;
  constexpr int64_t kEarliest = 315532800;
  const auto setTime = [](const fs::path& path, int64_t seconds) {
    const timespec times[] = {{seconds, 0}, {seconds, 0}};
    EXPECT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  };
  for (const char* name : {"in/a b/c", "in/empty", "in/real/sub", "made"}) {
    fs::create_directories(folder / name);
  }
  for (const char* name : {"in/a b/c/memory", "in/a b/function", "in/z"}) {
    test::WriteFile(folder / name, bytes);
  }
  for (const char* name : {"in/real/1", "in/real/sub/2", "in/real/out"}) {
    test::WriteFile(folder / name, name);
  }
  for (const auto& item : fs::recursive_directory_iterator(folder / "in")) {
    setTime(item.path(), item.path().filename() == "c" ? kEarliest : kTime);
  }
  setTime(folder / "in", kEarliest);
  const BuildOptions options{
      .leavesOut = [](const std::string& path) { return path == "real/out"; }};
  Build(folder / "folder.cap", {folder / "in"}, options);

  const auto function =
      FunctionSource(bytes.size(), [&](uint64_t at, std::span<unsigned char> out) {
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), out.size(), out.begin());
        return out.size();
      });
  const std::vector<BuildItem> items{
      {.path = "z", .source = folder / "in/z"},
      {.path = "real", .source = folder / "in/real"},
      {.path = "empty", .modified = kTime},
      {.path = "a b/function", .bytes = function, .modified = kTime},
      {.path = "a b", .modified = kTime},
      {.path = "a b/c/memory", .bytes = MemorySource(span), .modified = kTime},
  };
  ImageBuilder builder(folder / "items.cap", options);
  builder.AddItems(items);
  EXPECT_EQ(builder.Finish().files, 5u);
  EXPECT_TRUE(test::ReadFile(folder / "items.cap") == test::ReadFile(folder / "folder.cap"));

  ImageBuilder other(folder / "other.cap", {.level = 0});
  const auto broken = FunctionSource(9, [](uint64_t, std::span<unsigned char>) -> size_t {
    throw std::system_error(EIO, std::generic_category());
  });
  const auto full = FunctionSource(9, [](uint64_t, std::span<unsigned char>) -> size_t {
    errno = ENOSPC;
    return 0;
  });
  other.AddItems({{.path = "f", .source = folder / "in/z", .modified = kTime, .attributes = 0x07},
                  {.path = "g", .bytes = broken},
                  {.path = "g2", .bytes = full},
                  {.path = "h", .bytes = MemorySource(span)},
                  {.path = "i", .modified = std::numeric_limits<int64_t>::min()},
                  {.path = "j", .modified = std::numeric_limits<int64_t>::max()}});
  const BuildReport report = other.Finish();
  EXPECT_EQ(report.timesChanged, 2u);
  ASSERT_EQ(report.problems.size(), 2u);
  EXPECT_EQ(report.problems[0].path + ": " + report.problems[0].reason,
            "g: read at 0x0: input/output error");
  EXPECT_EQ(report.problems[1].reason, "changed while it was read");
  const Image image(folder / "other.cap");
  EXPECT_TRUE(image.IsWhole());
  EXPECT_EQ(image.Find("f")->Attributes(), 0x07);
  EXPECT_EQ(image.Find("f")->ModifiedTime(), kTime);
  EXPECT_EQ(test::ReadAll(image, *image.Find("h")), bytes);
  EXPECT_EQ(image.Find("i")->ModifiedTime(), kEarliest);

  const auto memory = MemorySource(span);
  const std::pair<std::vector<BuildItem>, ErrorKind> refused[] = {
      {{{.path = "a/../b"}}, ErrorKind::Misuse},
      {{{.path = "/a"}}, ErrorKind::Misuse},
      {{{.path = ""}}, ErrorKind::Misuse},
      {{{.path = "a", .source = folder / "in/z", .bytes = memory}}, ErrorKind::Misuse},
      {{{.path = "a", .attributes = 0x10}}, ErrorKind::Misuse},
      {{{.path = "a."}}, ErrorKind::Unsupported},
      {{{.path = "a", .source = "/dev/null"}}, ErrorKind::Unsupported},
      {{{.path = "a", .source = folder / "none"}}, ErrorKind::NotFound},
      {{{.path = "a"}, {.path = "a"}}, ErrorKind::Exists},
      {{{.path = "a", .bytes = memory}, {.path = "a/b/c"}}, ErrorKind::Exists},
      {{{.path = "a", .source = folder / "in"}, {.path = "a/b"}}, ErrorKind::Exists},
  };
  for (const auto& [wrong, kind] : refused) {
    ImageBuilder refusing(folder / "refused.cap");
    try {
      refusing.AddItems(wrong);
      ADD_FAILURE() << wrong[0].path;
    } catch (const Error& error) {
      EXPECT_EQ(error.Kind(), kind) << error.what();
    }
  }
}

TEST(ImageBuilder, LabelsStayWithTheirPartitions) {
  const TempDir folder;
  fs::create_directories(folder / "named");
  test::WriteFile(folder / "named/f", "1");
  const auto labels = [&](const std::string& image) {
    std::string all;
    const Image opened(image);
    for (const PartitionInfo& partition : opened.Info().partitions) all += partition.label + "|";
    return all;
  };
  const std::string path = folder / "x.cap";
  ImageBuilder builder(path, {.level = 0, .labelsFolders = true});
  builder.AddDirectory(folder / "named/");
  builder.AddDirectory(folder / "named/.", std::string(255, 'x'));
  builder.AddDirectory(folder / "named/.");
  builder.AddItems({});
  builder.AddItems({{.path = "a"}},
                   "Gr\xc3\xbc\xc3\x9f"
                   "e");
  for (const char* wrong : {"\x1b", "\n", "\xc2\x9b", "\xff"}) {
    EXPECT_THROW(builder.AddDirectory(folder / "named", wrong), Error);
  }
  EXPECT_THROW(builder.AddItems({}, std::string(256, 'x')), Error);
  static_cast<void>(builder.Finish());
  const std::string given = "named|" + std::string(255, 'x') +
                            "|named||Gr\xc3\xbc\xc3\x9f"
                            "e|";
  EXPECT_EQ(labels(path), given);
  EXPECT_EQ(Verifier(path).Run([](const Fault&) {}).faults, 0u);
  const std::string made = test::ReadFile(path);
  for (const auto how : {DamagedSections::Refuse, DamagedSections::IndexWhatIsLeft}) {
    EXPECT_TRUE(IndexWriter(path).Write(how).problems.empty());
    EXPECT_EQ(test::ReadFile(path), made);
  }
  // A damaged file does not cost the labels, nor do unlabelled partitions get any.
  std::string damaged = made;
  const Image whole(path);
  damaged[whole.Info().partitions[0].offset + 2100] ^= 1;
  test::WriteFile(path, damaged);
  EXPECT_FALSE(IndexWriter(path).Write(DamagedSections::NoteDamage).problems.empty());
  const Image noted(path, Opening::Salvage);
  EXPECT_EQ(noted.Info().partitions[4].label,
            "Gr\xc3\xbc\xc3\x9f"
            "e");
  Build(path, {folder / "named"});
  EXPECT_EQ(labels(path), "|");
}

TEST(ImageBuilder, ReportsProgress) {
  const TempDir folder;
  fs::create_directories(folder / "s/d");
  fs::create_directories(folder / "d");
  test::WriteFile(folder / "s/d/f", "12345");
  std::vector<std::string> seen;
  Build(folder / "x.cap", {folder / "d", folder / "s"}, {.onProgress = [&](const Progress& at) {
          seen.push_back(at.path + " " + std::to_string(at.files) + std::to_string(at.directories) +
                         std::to_string(at.bytesDone));
        }});
  EXPECT_EQ(seen, (std::vector<std::string>{"1:/d 010", "1:/d/f 115"}));
}

}  // namespace
}  // namespace capsule::host
