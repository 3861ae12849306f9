#include "capsule/host/extractor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <thread>

#include "capsule/host/file/reason.h"
#include "capsule/host/image_builder.h"
#include "tests/host/small_image.h"

namespace capsule::host {
namespace {

namespace fs = std::filesystem;
using test::ImageMaker;

// Names, kinds, modes, times and contents of all below a folder, for comparison.
std::map<std::string, std::string> Snapshot(const fs::path& folder) {
  std::map<std::string, std::string> seen;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    struct stat status {};
    lstat(entry.path().c_str(), &status);
    std::string facts =
        std::to_string(status.st_mode) + " " + std::to_string(status.st_mtim.tv_sec) + "." +
        std::to_string(status.st_mtim.tv_nsec) + " " + std::to_string(status.st_nlink) + " ";
    if (S_ISREG(status.st_mode)) facts += test::ReadFile(entry.path());
    seen[entry.path().lexically_relative(folder)] = facts;
  }
  return seen;
}

// An image, a target, and beside the target what must not change.
class ExtractorTest : public testing::Test {
 protected:
  ExtractorTest() {
    fs::create_directory(m_directory / "out");
    fs::create_directory(m_directory / "outside");
    test::WriteFile(Outside("victim"), "precious");
    m_small.BeginSection();
  }

  std::string Out(const std::string& name) const { return m_directory / ("out/" + name); }
  std::string Outside(const std::string& name) const { return m_directory / ("outside/" + name); }

  void Complete() {
    m_small.EndSection();
    test::WriteIndexed(m_directory / "image", m_small);
  }

  // 0:/A (10 bytes "d"), 0:/SUB/B (20 bytes).
  void MakeImage() {
    m_small.SmallFile("A          ", 10);
    m_small.Folder("SUB        ");
    m_small.SmallFile("B          ", 20);
    m_small.Close();
    Complete();
  }

  ExtractReport Extract(bool force = false) {
    const Image image(m_directory / "image");
    ExtractOptions options;
    options.force = force;
    return Extractor(image, m_directory / "out", options).Run();
  }

  static std::string Reasons(const ExtractReport& report) {
    std::string text;
    for (const ExtractProblem& problem : report.problems) {
      text += problem.path + ": " + problem.reason + "\n";
    }
    return text;
  }

  test::TempDir m_directory;
  test::ImageMaker m_small;
};

TEST_F(ExtractorTest, LinksFoundInTheTargetAreNeverFollowed) {
  MakeImage();
  for (const bool force : {false, true}) {
    fs::remove_all(m_directory / "out");
    fs::create_directory(m_directory / "out");
    fs::create_symlink(Outside("victim"), Out("A"));
    fs::create_symlink(m_directory / "outside", Out("SUB"));
    const auto before = Snapshot(m_directory / "outside");
    const ExtractReport report = Extract(force);
    EXPECT_EQ(Snapshot(m_directory / "outside"), before);
    EXPECT_EQ(Reasons(report),
              std::string(force ? "" : "0:/A: exists in the target folder, kept\n") +
                  "0:/SUB: something that is not a folder is in the way\n");
    EXPECT_EQ(fs::is_symlink(Out("A")), !force);
    EXPECT_EQ(test::ReadFile(Out("A")), force ? std::string(10, 'd') : "precious");
  }
}

TEST_F(ExtractorTest, WhatIsInTheWayIsKeptOrReplacedWhole) {
  MakeImage();
  ASSERT_EQ(mkfifo(Out("A").c_str(), 0600), 0);
  fs::create_directory(Out("SUB"));
  fs::create_hard_link(Outside("victim"), Out("SUB/B"));
  EXPECT_EQ(Reasons(Extract()),
            "0:/A: exists in the target folder, kept\n"
            "0:/SUB/B: exists in the target folder, kept\n");
  EXPECT_TRUE(fs::is_fifo(Out("A")));
  EXPECT_EQ(Reasons(Extract(true)), "");
  EXPECT_EQ(test::ReadFile(Out("A")), std::string(10, 'd'));
  EXPECT_EQ(test::ReadFile(Out("SUB/B")), std::string(20, 'd'));
  EXPECT_EQ(test::ReadFile(Outside("victim")), "precious");
  fs::remove(Out("A"));
  fs::create_directory(Out("A"));
  EXPECT_EQ(Reasons(Extract(true)), "0:/A: a folder is in the way in the target folder\n");
}

TEST_F(ExtractorTest, ForgedNamesStayInTheImage) {
  for (const char* name : {"..         ", ".          ", "../X       ", "A/B        ",
                           "A\\B        ", "/ETC       ", "           "}) {
    m_small.SmallFile(name, 3);
  }
  m_small.SmallFile(std::string_view("A\0B        ", 11), 3);
  m_small.Entry("../UP      ", 0x10);
  m_small.Close();
  m_small.SmallFile("GOOD       ", 3);
  Complete();
  const auto before = Snapshot(m_directory / "outside");
  const ExtractReport report = Extract(true);
  EXPECT_EQ(report.problems.size(), 9u) << Reasons(report);
  EXPECT_EQ(report.files, 1u);
  EXPECT_EQ(Snapshot(m_directory / "outside"), before);
  EXPECT_TRUE(fs::exists(Out("GOOD")));
  EXPECT_EQ(Snapshot(m_directory.Path()).size(), 5u);  // image, out, GOOD, outside, victim
}

TEST_F(ExtractorTest, OfTwoEqualNamesTheFirstComesOut) {
  m_small.SmallFile("A          ", 1);
  m_small.SmallFile("A          ", 2);
  m_small.Folder("A          ");
  m_small.Close();
  Complete();
  EXPECT_EQ(Reasons(Extract(true)),
            "0:/A: an earlier entry has the same name\n"
            "0:/A: an earlier entry has the same name\n");
  EXPECT_EQ(test::ReadFile(Out("A")), "d");
}

TEST_F(ExtractorTest, DamagedFilesLeaveNothingBehindAndTheRestComesOut) {
  MakeImage();
  std::string bytes = test::ReadFile(m_directory / "image");
  bytes[7560 + 2056 + 40] = 0x17;  // the type of A's only record
  test::WriteFile(m_directory / "image", bytes);
  EXPECT_EQ(
      Reasons(Extract()),
      "0:/A: data block at 0x25b8: record is of type 23, a data block is 3; 0 of 10 bytes were "
      "read\n");
  EXPECT_EQ(Snapshot(m_directory / "out").size(), 2u);
  EXPECT_EQ(test::ReadFile(Out("SUB/B")), std::string(20, 'd'));
}

TEST_F(ExtractorTest, WhatKilledRunsLeftIsRemoved) {
  MakeImage();
  fs::create_directory(Out("SUB"));
  const std::string live = Out("SUB/.capsule-tmp-abcdefghijkm");
  for (const std::string& name :
       {Out(".capsule-tmp-abcdefghijkl"), live, Out("SUB/.x.capsule-tmp-abcdefghijkl"),
        Out("SUB/.capsule-tmp-"), Out("SUB/x.capsule-tmp-abcdefghijkl")}) {
    test::WriteFile(name, "half");
  }
  fs::create_directory(Out("SUB/.capsule-tmp-abcdefghijkn"));
  fs::create_symlink(Outside("victim"), Out("SUB/.capsule-tmp-abcdefghijko"));
  const int lock = ::open(live.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  EXPECT_EQ(Reasons(Extract()), "");
  ::close(lock);
  const auto left = Snapshot(m_directory / "out");
  EXPECT_EQ(left.size(), 8u);
  EXPECT_FALSE(left.contains(".capsule-tmp-abcdefghijkl"));
  EXPECT_FALSE(left.contains("SUB/.x.capsule-tmp-abcdefghijkl"));
  // Who holds the lock of the folder has files in it that are not locked.
  const int folder = ::open(Out("SUB").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(::flock(folder, LOCK_EX), 0);
  EXPECT_EQ(Reasons(Extract(true)), "");
  EXPECT_TRUE(fs::exists(live));
  ::close(folder);
  EXPECT_EQ(Reasons(Extract(true)), "");
  EXPECT_FALSE(fs::exists(live));
}

TEST_F(ExtractorTest, TimesAndPermissionsComeBack) {
  m_small.Folder("SUB        ");
  m_small.SmallFile("RO         ", 1, 0x21);
  m_small.Close();
  const auto stamp = [&](size_t entry, const char* dateAndTime) {
    m_small.Bytes().replace(7560 + 2056 + 40 * entry + 8 + 22, 4, dateAndTime, 4);
  };
  stamp(0, "\x00\x60\xa1\x58");  // 2024-05-01 12:00:00
  stamp(3, "\x21\x60\xa1\x58");  // 12:01:02
  Complete();
  EXPECT_EQ(Reasons(Extract()), "");
  struct stat status {};
  ASSERT_EQ(stat(Out("SUB").c_str(), &status), 0);
  EXPECT_EQ(status.st_mtime, 1714564800);
  ASSERT_EQ(stat(Out("SUB/RO").c_str(), &status), 0);
  EXPECT_EQ(status.st_mtime, 1714564862);
  EXPECT_EQ(status.st_mode & 0222, 0u);
}

TEST_F(ExtractorTest, ChosenEntriesComeWithTheirFolders) {
  MakeImage();
  const Image image(m_directory / "image");
  Extractor extractor(image, m_directory / "out");
  extractor.Add(*image.Find("0:/SUB/B"));
  extractor.Add(*image.Find("0:/SUB/B"));
  EXPECT_EQ(Reasons(extractor.Run()), "");
  EXPECT_TRUE(fs::exists(Out("SUB/B")));
  EXPECT_FALSE(fs::exists(Out("A")));
}

TEST_F(ExtractorTest, DeepFoldersEndWhereTheLimitIs) {
  for (int i = 0; i < kMaxExtractDepth + 50; ++i) m_small.Folder("D          ");
  Complete();
  const ExtractReport report = Extract();
  EXPECT_EQ(report.directories, static_cast<uint64_t>(kMaxExtractDepth));
  ASSERT_EQ(report.problems.size(), 1u);
  EXPECT_EQ(report.problems[0].reason, "folders are nested too deep");
}

// A real tree, in an image of its own: long files of every kind, short ones, and odd names.
class ExtractorJobsTest : public ExtractorTest {
 protected:
  ExtractorJobsTest() {
    fs::create_directories(m_directory / "in/folder/below");
    fs::create_directory(m_directory / "in/empty");
    std::string text;
    for (uint32_t i = 0; text.size() < 4500000; ++i) text += std::to_string(i * i) + " words\n";
    text.replace(3000000, 400000, 400000, '\0');
    Make("long", text);
    Make("folder/zeros", std::string(600000, '\0'));
    Make("folder/middle", text.substr(7, 1234567));
    Make("none", "");
    Make("\n\xff odd", "odd");
    for (int i = 0; i < 400; ++i) {
      Make((i % 3 != 0 ? "folder/below/" : "") + std::to_string(i),
           text.substr(static_cast<size_t>(i), static_cast<size_t>(i * 7)));
    }
    fs::permissions(m_directory / "in/folder/below/1", fs::perms(0444));
    ImageBuilder builder(m_directory / "image", {.jobs = 1});
    builder.AddDirectories({m_directory / "in"});
    static_cast<void>(builder.Finish());
  }

  void Make(const std::string& name, const std::string& bytes) const {
    test::WriteFile(m_directory / ("in/" + name), bytes);
  }

  void Damage(const std::vector<std::string>& paths) const {
    std::string bytes = test::ReadFile(m_directory / "image");
    const Image image(m_directory / "image");
    for (const std::string& path : paths) {
      const Entry entry = image.Find(path).value();
      bytes[entry.Offset() + 400 + entry.Size() / 12] ^= 0x55;
    }
    test::WriteFile(m_directory / "image", bytes);
  }

  // All that is told, and all that is there afterwards.
  std::map<std::string, std::string> Run(ExtractOptions options, const std::string& existing) {
    fs::remove_all(m_directory / "out");
    fs::create_directory(m_directory / "out");
    if (!existing.empty()) test::WriteFile(Out(existing), "existing");
    std::string told;
    options.onLost = [&](const std::string& path, const LostRange& lost) {
      told += path + " " + std::to_string(lost.offset) + " " + lost.reason + "\n";
    };
    options.onProgress = [&](const Progress& at) {
      told +=
          at.path + " " + std::to_string(at.files) + " " + std::to_string(at.directories) + "\n";
    };
    const Image image(m_directory / "image", Opening::Salvage);
    const ExtractReport report = Extractor(image, m_directory / "out", options).Run();
    auto all = Snapshot(m_directory / "out");
    if (!existing.empty() && !options.force) all[existing] = test::ReadFile(Out(existing));
    std::erase(told, '\0');
    // Long files may be told of in other steps.
    std::string lines;
    for (size_t at = 0; at < told.size(); at = told.find('\n', at) + 1) {
      const std::string line = told.substr(at, told.find('\n', at) + 1 - at);
      if (!lines.ends_with(line)) lines += line;
    }
    all["/told"] = lines;
    all["/report"] = Reasons(report) + std::to_string(report.files) + " " +
                     std::to_string(report.directories) + " " + std::to_string(report.bytes) + " " +
                     std::to_string(report.damagedFiles);
    return all;
  }

  // Whole files and no others.
  void ExpectNothingHalfDone() const {
    for (const auto& entry : fs::recursive_directory_iterator(m_directory / "out")) {
      const fs::path name = entry.path().lexically_relative(m_directory / "out");
      EXPECT_TRUE(fs::exists(m_directory / "in" / name)) << name;
      if (!entry.is_regular_file()) continue;
      EXPECT_TRUE(test::ReadFile(entry.path()) == test::ReadFile(m_directory / "in" / name))
          << name;
    }
  }
};

TEST_F(ExtractorJobsTest, EveryNumberOfThemGivesTheSame) {
  const auto compare = [&](const std::string& what, ExtractOptions options,
                           const std::string& existing) {
    options.jobs = 1;
    const auto alone = Run(options, existing);
    for (const int jobs : {2, 8}) {
      SCOPED_TRACE(what + ", jobs: " + std::to_string(jobs));
      options.jobs = jobs;
      const auto together = Run(options, existing);
      for (const auto& [name, facts] : alone) {
        EXPECT_TRUE(together.contains(name) && together.at(name) == facts)
            << name << (name[0] == '/' ? ":\n" + facts + "\n\n" + together.at(name) : "");
      }
      EXPECT_EQ(together.size(), alone.size());
    }
    return alone;
  };
  compare("plain", {}, "");
  ExpectNothingHalfDone();
  EXPECT_EQ(Snapshot(m_directory / "out").size(), Snapshot(m_directory / "in").size());
  compare("existing", {}, "long");
  compare("replaced", {.force = true}, "33");
  struct stat status {};
  ASSERT_EQ(stat(Out("folder/zeros").c_str(), &status), 0);
  EXPECT_LT(status.st_blocks * 512, 200000);
  Damage({"0:/long", "0:/folder/below/77", "0:/folder/below/4", "0:/300"});
  for (const OnDamage onDamage : {OnDamage::Stop, OnDamage::Zero, OnDamage::Skip}) {
    const auto seen = compare("damaged", {.onDamage = onDamage}, "33");
    const auto lines = std::count(seen.at("/report").begin(), seen.at("/report").end(), '\n');
    EXPECT_EQ(lines, onDamage == OnDamage::Stop ? 5 : 1) << seen.at("/report");
  }
}

TEST_F(ExtractorJobsTest, WhatEndsThemLeavesWholeFiles) {
  for (uint64_t last = 1; last < 406; last = last * 4 + 9) {
    for (const bool throws : {false, true}) {
      fs::remove_all(m_directory / "out");
      fs::create_directory(m_directory / "out");
      std::stop_source stop;
      const auto onProgress = [&](const Progress& at) {
        if (at.files < last) return;
        if (throws) throw std::runtime_error("enough");
        stop.request_stop();
      };
      const Image image(m_directory / "image");
      Extractor extractor(image, m_directory / "out",
                          {.onProgress = onProgress, .stop = stop.get_token(), .jobs = 4});
      EXPECT_THROW(static_cast<void>(extractor.Run()), std::runtime_error);
      ExpectNothingHalfDone();
    }
  }
}

TEST_F(ExtractorJobsTest, FewDescriptorsAreEnoughOrSaid) {
  const Image image(m_directory / "image");
  const int next = ::dup(0);
  ::close(next);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  // Checks of types need descriptors of their own when they meet a type for the first time.
  for (const int jobs : {1, 4}) {
    fs::create_directory(m_directory / "out");
    static_cast<void>(Extractor(image, m_directory / "out", {.jobs = jobs}).Run());
    fs::remove_all(m_directory / "out");
  }
  EXPECT_THROW(ThrowSystemError("", "", EMFILE), ShortageError);
  EXPECT_THROW(Extractor(image, m_directory / "out").Run(), Error);
  size_t whole = 0;
  for (rlim_t more = 0; more < 24; more += 2) {
    const rlimit few = {static_cast<rlim_t>(next) + more, before.rlim_max};
    fs::remove_all(m_directory / "out");
    fs::create_directory(m_directory / "out");
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    try {
      whole += Extractor(image, m_directory / "out", {.jobs = 4}).Run().files == 405 ? 1 : 0;
    } catch (const ShortageError&) {
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    ExpectNothingHalfDone();
  }
  EXPECT_GE(whole, 5u);
}

TEST_F(ExtractorJobsTest, TwoRunsAtOnceDoNotHarmEachOther) {
  const Image image(m_directory / "image");
  for (int i = 0; i < 2; ++i) {
    fs::remove_all(m_directory / "out");
    fs::create_directory(m_directory / "out");
    std::string reasons[2];
    const auto run = [&](size_t n) {
      const ExtractOptions options = {.force = true, .jobs = 2};
      reasons[n] = Reasons(Extractor(image, m_directory / "out", options).Run());
    };
    std::thread other(run, 1);
    run(0);
    other.join();
    EXPECT_EQ(reasons[0] + reasons[1], "");
    ExpectNothingHalfDone();
  }
}

}  // namespace
}  // namespace capsule::host
