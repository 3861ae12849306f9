#include "capsule/host/extractor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>

#include "capsule/host/index_writer.h"
#include "tests/host/small_image.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

namespace fs = std::filesystem;
using test::SmallImage;
using test::TempDir;

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
    fs::create_directory(m_Directory / "out");
    fs::create_directory(m_Directory / "outside");
    test::WriteFile(Outside("victim"), "precious");
  }

  std::string Out(const std::string& name) const { return m_Directory / ("out/" + name); }
  std::string Outside(const std::string& name) const { return m_Directory / ("outside/" + name); }

  void Complete(SmallImage& image) {
    test::WriteFile(m_Directory / "image", image.Bytes());
    IndexWriter(m_Directory / "image").Write();
  }

  // 0:/A (10 bytes "d"), 0:/SUB/B (20 bytes).
  void MakeImage() {
    SmallImage image;
    image.BeginSection();
    image.Entry("A          ", 0x20, 10);
    image.Data(512, true);
    image.Folder("SUB        ");
    image.Entry("B          ", 0x20, 20);
    image.Data(512, true);
    image.Close();
    image.EndSection();
    Complete(image);
  }

  ExtractReport Extract(bool force = false) {
    const Image image(m_Directory / "image");
    ExtractOptions options;
    options.force = force;
    return Extractor(image, m_Directory / "out", options).Run();
  }

  static std::string Reasons(const ExtractReport& report) {
    std::string text;
    for (const ExtractProblem& problem : report.problems) {
      text += problem.path + ": " + problem.reason + "\n";
    }
    return text;
  }

  TempDir m_Directory;
};

TEST_F(ExtractorTest, LinksFoundInTheTargetAreNeverFollowed) {
  MakeImage();
  for (const bool force : {false, true}) {
    fs::remove_all(m_Directory / "out");
    fs::create_directory(m_Directory / "out");
    fs::create_symlink(Outside("victim"), Out("A"));
    fs::create_symlink(m_Directory / "outside", Out("SUB"));
    const auto before = Snapshot(m_Directory / "outside");
    const ExtractReport report = Extract(force);
    EXPECT_EQ(Snapshot(m_Directory / "outside"), before);
    const std::string way = "0:/SUB: something that is not a folder is in the way\n";
    if (force) {
      EXPECT_EQ(Reasons(report), way);
      EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(Out("A"))));
      EXPECT_EQ(test::ReadFile(Out("A")), std::string(10, 'd'));
    } else {
      EXPECT_EQ(Reasons(report), "0:/A: exists in the target folder, kept\n" + way);
      EXPECT_TRUE(fs::is_symlink(Out("A")));
    }
  }
}

TEST_F(ExtractorTest, ATargetThatIsALinkOrMissingIsRefused) {
  MakeImage();
  fs::remove(m_Directory / "out");
  EXPECT_THROW(Extract(), Error);
  fs::create_directory_symlink(m_Directory / "outside", m_Directory / "out");
  const auto before = Snapshot(m_Directory / "outside");
  EXPECT_THROW(Extract(), Error);
  EXPECT_EQ(Snapshot(m_Directory / "outside"), before);
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
  SmallImage image;
  image.BeginSection();
  for (const char* name : {"..         ", ".          ", "../X       ", "A/B        ",
                           "A\\B        ", "/ETC       ", "           "}) {
    image.Entry(name, 0x20, 3);
    image.Data(512, true);
  }
  image.Entry(std::string_view("A\0B        ", 11), 0x20, 3);
  image.Data(512, true);
  image.Entry("../UP      ", 0x10);
  image.Close();
  image.Entry("GOOD       ", 0x20, 3);
  image.Data(512, true);
  image.EndSection();
  Complete(image);
  const auto before = Snapshot(m_Directory / "outside");
  const ExtractReport report = Extract(true);
  EXPECT_EQ(report.problems.size(), 9u) << Reasons(report);
  EXPECT_EQ(report.files, 1u);
  EXPECT_EQ(Snapshot(m_Directory / "outside"), before);
  EXPECT_EQ(Snapshot(m_Directory / "out").size(), 1u);
  EXPECT_TRUE(fs::exists(Out("GOOD")));
  EXPECT_EQ(Snapshot(m_Directory.Path()).size(), 5u);  // image, out, GOOD, outside, victim
}

TEST_F(ExtractorTest, OfTwoEqualNamesTheFirstComesOut) {
  SmallImage image;
  image.BeginSection();
  image.Entry("A          ", 0x20, 1);
  image.Data(512, true);
  image.Entry("A          ", 0x20, 2);
  image.Data(512, true);
  image.Folder("A          ");
  image.Close();
  image.EndSection();
  Complete(image);
  EXPECT_EQ(Reasons(Extract(true)),
            "0:/A: an earlier entry has the same name\n"
            "0:/A: an earlier entry has the same name\n");
  EXPECT_EQ(test::ReadFile(Out("A")), "d");
}

TEST_F(ExtractorTest, DamagedFilesLeaveNothingBehindAndTheRestComesOut) {
  MakeImage();
  std::string bytes = test::ReadFile(m_Directory / "image");
  bytes[7560 + 2056 + 40] = 0x17;  // the type of A's only record
  test::WriteFile(m_Directory / "image", bytes);
  const ExtractReport report = Extract();
  EXPECT_EQ(
      Reasons(report),
      "0:/A: data block at 0x25b8: record is of type 23, a data block is 3; 0 of 10 bytes were "
      "read\n");
  EXPECT_EQ(Snapshot(m_Directory / "out").size(), 2u);
  EXPECT_EQ(test::ReadFile(Out("SUB/B")), std::string(20, 'd'));
}

TEST_F(ExtractorTest, TimesAndPermissionsComeBack) {
  SmallImage image;
  image.BeginSection();
  image.Folder("SUB        ");
  image.Entry("RO         ", 0x21, 1);
  image.Data(512, true);
  image.Close();
  image.EndSection();
  const auto stamp = [&](size_t entry, const char* dateAndTime) {
    image.Bytes().replace(7560 + 2056 + 40 * entry + 8 + 22, 4, dateAndTime, 4);
  };
  stamp(0, "\x00\x60\xa1\x58");  // 2024-05-01 12:00:00
  stamp(3, "\x21\x60\xa1\x58");  // 12:01:02
  Complete(image);
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
  const Image image(m_Directory / "image");
  Extractor extractor(image, m_Directory / "out");
  extractor.Add(*image.Find("0:/SUB/B"));
  extractor.Add(*image.Find("0:/SUB/B"));
  const ExtractReport report = extractor.Run();
  EXPECT_EQ(Reasons(report), "");
  EXPECT_TRUE(fs::exists(Out("SUB/B")));
  EXPECT_FALSE(fs::exists(Out("A")));
}

TEST_F(ExtractorTest, DeepFoldersEndWhereTheLimitIs) {
  SmallImage image;
  image.BeginSection();
  for (int i = 0; i < kMaxExtractDepth + 50; ++i) image.Folder("D          ");
  image.EndSection();
  Complete(image);
  const ExtractReport report = Extract();
  EXPECT_EQ(report.directories, static_cast<uint64_t>(kMaxExtractDepth));
  ASSERT_EQ(report.problems.size(), 1u);
  EXPECT_EQ(report.problems[0].reason, "folders are nested too deep");
}

}  // namespace
}  // namespace capsule::host
