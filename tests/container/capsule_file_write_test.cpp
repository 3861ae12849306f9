#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <tuple>

#include "capsule/blocks/file_block.h"
#include "capsule/container/capsule_file.h"
#include "capsule/partition/partition.h"
#include "tests/support/bytes.h"
#include "tests/support/process_limit.h"
#include "tests/support/source_tree.h"

namespace capsule {
namespace {

using test::Hex;
using test::U16At;
using test::U32At;
using test::U8At;
using test::Zeros;

constexpr size_t kFirstItem = 7560 + 2056;

class CapsuleFileWrite : public testing::Test {
 protected:
  // A new image that has its header.
  void Start(int level, const std::string& name = "out.img") {
    m_image = m_tree.Beside(name);
    m_state.previousInsertDir.clear();
    m_state.dirLevelsToClose = 0;
    m_file = std::make_unique<CapsuleFile>();
    ASSERT_EQ(m_file->CreateCapsuleFile(m_image.c_str()), 0);
    ASSERT_EQ(m_file->SetCompressionLevel(level), 0);
    ASSERT_EQ(m_file->WriteImageFileHeader("Capsulate test"), 0);
  }

  int Insert(const std::string& path, int partition = 0) {
    return m_file->InsertFile(path.c_str(), partition);
  }

  // The stored bytes of the finished image.
  std::string Finish() {
    EXPECT_EQ(m_file->CloseImageFile(), 0);
    return test::ReadFile(m_image);
  }

  test::SourceTree m_tree;
  LibraryState& m_state = m_tree.State();
  std::string m_image;
  std::unique_ptr<CapsuleFile> m_file;
};

TEST_F(CapsuleFileWrite, SmallImageHasExactlyTheseBytes) {
  m_tree.AddFile("a/Hello World.txt", "hi\n");
  m_tree.AddFile("Z.TXT", "");
  m_tree.AddDirectory("D");
  for (const char* name : {"a/Hello World.txt", "Z.TXT", "a", "D", ""}) {
    m_tree.SetTime(name, 981173106);  // 2001-02-03 04:05:06
  }
  Start(0);
  EXPECT_EQ(Insert("C:\\a"), 0);
  EXPECT_EQ(Insert("C:\\a\\Hello World.txt"), 0);
  EXPECT_EQ(Insert("C:\\Z.TXT"), 0);
  EXPECT_EQ(Insert("C:\\D", 1), 0);

  const std::string record = Hex("16 01 00 00 00 00 20 00");
  const std::string zeroEntry = record + Zeros(32);
  const std::string times = Hex("00 06 A3 20 43 2A 43 2A 0A 00 A3 20 43 2A 0A 00");
  const auto entry = [&](const std::string& name, int attribute, const std::string& size) {
    return record + name + static_cast<char>(attribute) + times + Hex(size);
  };
  const std::string none = "00 00 00 00";
  const std::string area = Hex("17 00 00 00 00 00 00 06") + Zeros(1536);
  const std::string sectionStart = Hex("AB CD 02") + Zeros(509) + area;

  std::string header = "Capsulate test" + Zeros(7560 - 14);
  header.replace(720, 1, "\x03");
  header.replace(5000, 2, "\xAB\xCD");
  header.replace(5513, 1, "\x02");
  for (const size_t slot : {7056, 7080})
    header.replace(slot + 2, 13, Hex("0B") + Zeros(11) + "\x02");

  const std::string dots = entry(".          ", 0x10, none) + entry("..         ", 0x10, none);
  const std::string hello =
      record +
      Hex("42 78 00 74 00 00 00 FF FF FF FF 0F 00 DB FF FF FF FF FF FF FF FF FF FF FF FF 00 00 FF "
          "FF FF FF") +
      record +
      Hex("01 48 00 65 00 6C 00 6C 00 6F 00 0F 00 DB 20 00 57 00 6F 00 72 00 6C 00 64 00 00 00 2E "
          "00 74 00") +
      entry("HELLO_~1TXT", 0x20, "03 00 00 00");
  const std::string data = Hex("03 01 00 00 00 00 00 02") + "hi\n" + Zeros(509);
  const std::string file = zeroEntry + entry("Z       TXT", 0x20, none);
  const std::string expected =
      header + sectionStart + entry("A          ", 0x10, none) + dots + hello + data + file + area +
      sectionStart + entry("D          ", 0x10, none) + dots + zeroEntry + zeroEntry + area;
  EXPECT_EQ(m_file->GetWriteOffset(),
            static_cast<int>(expected.size() - area.size() - 2 * zeroEntry.size()));
  const std::string stored = Finish();
  ASSERT_EQ(stored.size(), expected.size());
  for (size_t i = 0; i < stored.size(); ++i) ASSERT_EQ(stored[i], expected[i]) << i;
}

TEST_F(CapsuleFileWrite, HeaderTellsTheLevelAndRefusesLongVersions) {
  for (const int level : {0, 1, 9}) {
    Start(level, "header" + std::to_string(level));
    EXPECT_EQ(m_file->SetCompressionLevel(10), -1);
    EXPECT_EQ(m_file->SetCompressionLevel(-1), -1);
    EXPECT_EQ(m_file->GetCompressionLevel(), level);
    const std::string bytes = Finish();
    EXPECT_EQ(bytes.size(), 7560U);
    EXPECT_EQ(U8At(bytes, 5513), 0);
    EXPECT_EQ(U8At(bytes, 5515), level == 0 ? 0 : 1);
    EXPECT_EQ(U8At(bytes, 719), level == 0 ? 0 : 2);
  }
  CapsuleFile image;
  ASSERT_EQ(image.CreateCapsuleFile(m_tree.Beside("long").c_str()), 0);
  EXPECT_EQ(image.WriteImageFileHeader(std::string(256, 'v').c_str()), -1);
  EXPECT_EQ(std::filesystem::file_size(m_tree.Beside("long")), 0U);
  EXPECT_EQ(image.WriteImageFileHeader(std::string(255, 'v').c_str()), 0);
  EXPECT_EQ(std::string(image.GetVersionString()), std::string(255, 'v'));
}

// What is inserted leaves room for the zero entries that close its levels. Headers written over and
// over to where nothing is kept bring the write offset near to the largest.
TEST_F(CapsuleFileWrite, AFullImageCanBeClosed) {
  constexpr int kLargest = 0x7FFFFFFF;
  const std::string file = m_tree.AddFile("f", "");
  for (const int left : {0, 40, 80, 120, 160}) {
    CapsuleFile image;
    ASSERT_EQ(image.CreateCapsuleFile("/dev/null"), 0);
    while (image.GetWriteOffset() < kLargest - 3 * 7560) {
      ASSERT_EQ(image.WriteImageFileHeader("v"), 0);
    }
    std::string folder = "d";
    ASSERT_EQ(image.InsertFile(m_tree.AddDirectory(folder).c_str(), 0), 0);
    const int before = kLargest - 1544 - 1600 - left;  // to be filled with files first
    while (image.GetWriteOffset() + 40 <= before) ASSERT_EQ(image.InsertFile(file.c_str(), 0), 0);
    int depth = 1;
    for (; depth < 50; ++depth) {
      folder += "/d";
      if (image.InsertFile(m_tree.AddDirectory(folder).c_str(), 0) != 0) break;
    }
    EXPECT_LT(depth, 12) << "each takes 120 bytes, and 40 to close it";
    EXPECT_EQ(image.CloseImageFile(), 0) << left;
    EXPECT_GT(image.GetWriteOffset(), kLargest - 1544 - 160) << "and no more room than that";
  }
}

TEST_F(CapsuleFileWrite, CreatingAgainReleasesTheFirstFileKeepsOldBytesAndReportsFailures) {
  test::WriteFile(m_tree.Beside("second"), std::string(20000, 'x'));
  Start(0, "first");
  ASSERT_EQ(Insert(m_tree.AddDirectory("d")), 0);
  ASSERT_EQ(m_file->CreateCapsuleFile(m_tree.Beside("second").c_str()), 0);
  EXPECT_EQ(m_file->GetPartitions().GetCount(), 0);
  ASSERT_EQ(m_file->WriteImageFileHeader("Capsulate"), 0);
  EXPECT_EQ(m_file->GetWriteOffset(), 7560);
  ASSERT_EQ(m_file->CloseImageFile(), 0);
  const std::string bytes = test::ReadFile(m_tree.Beside("second"));
  EXPECT_EQ(bytes.substr(7560), std::string(20000 - 7560, 'x'));

  EXPECT_EQ(m_file->CreateCapsuleFile(m_tree.Beside("no/such").c_str()), -1);
  EXPECT_EQ(m_file->GetImageFileHandle(), 0);
  EXPECT_EQ(m_file->GetLastError(), ENOENT);
  ASSERT_EQ(m_file->CreateCapsuleFile("/dev/full"), 0);
  EXPECT_EQ(m_file->WriteImageFileHeader("Capsulate"), -1);
  EXPECT_EQ(m_file->GetLastError(), ENOSPC);
  EXPECT_EQ(m_file->GetWriteOffset(), 0);
}

TEST_F(CapsuleFileWrite, LevelsAreClosedByWhatThePathsShare) {
  // The path inserted before, that of a directory, and how many levels it closes.
  const std::tuple<const char*, const char*, size_t> cases[] = {
      {"", "C:\\a", 0},         {"C:\\a\\b", "C:\\a\\c", 1}, {"C:\\a\\b\\d", "C:\\a", 2},
      {"C:\\a", "C:\\a\\b", 0}, {"C:\\A", "C:\\a\\b", 1},    {"C:/a/b", "C:\\a", 1},
      {"C:\\a\\", "C:\\a", 0},  {"\\\\a", "C:\\a", 3}};
  for (const char* name : {"a/b/d", "a/c"}) m_tree.AddDirectory(name);
  int number = 0;
  for (const auto& [previous, path, levels] : cases) {
    Start(0, "levels" + std::to_string(number++));
    m_state.previousInsertDir = previous;
    ASSERT_EQ(Insert(path), 0);
    const std::string bytes = Finish();
    size_t zeroEntries = 0;
    while (U8At(bytes, kFirstItem + 40 * zeroEntries + 8) == 0) ++zeroEntries;
    EXPECT_EQ(zeroEntries, levels) << previous << " then " << path;
    EXPECT_EQ(m_state.previousInsertDir, path);
    EXPECT_EQ(m_state.dirLevelsToClose, 0);
  }
}

TEST_F(CapsuleFileWrite, PartitionsOpenInOrderAndCountTheirNumbers) {
  const std::string file = m_tree.AddFile("F.BIN", std::string(511, 'f'));
  const std::string sectors = m_tree.AddFile("S.BIN", std::string(512, 's'));
  Start(0);
  for (const int number : {-1, 10}) EXPECT_EQ(Insert(m_tree.AddDirectory("d"), number), -1);
  EXPECT_EQ(m_file->GetCurrentPartition(), -1);
  EXPECT_EQ(std::filesystem::file_size(m_image), 7560U);
  ASSERT_EQ(Insert(file, 0), 0);
  const int before = m_file->GetWriteOffset();
  ASSERT_EQ(Insert(sectors, 2), 0);
  EXPECT_EQ(m_file->GetWriteOffset(), before + 3600 + 40 + 8 + 512);
  const auto length = std::filesystem::file_size(m_image);
  EXPECT_EQ(Insert(file, 1), -1);
  EXPECT_EQ(std::filesystem::file_size(m_image), length);
  EXPECT_EQ(m_file->IsPartitionSector(0), 0);
  EXPECT_EQ(m_file->IsPartitionSector(2), 1);

  const std::string bytes = Finish();
  EXPECT_EQ(U8At(bytes, 5513), 3);
  EXPECT_EQ(bytes.substr(7104, 192), Zeros(192));
  // 511 bytes: 1, 512 bytes: 2, and 1 of the insertion into a partition that was over.
  EXPECT_EQ(U32At(bytes, 7056 + 14), 4U);
  EXPECT_EQ(U32At(bytes, 7080 + 14), 4U);
}

TEST_F(CapsuleFileWrite, KnownCompressedExtensionsAreStored) {
  const std::string text(600, 't');
  const std::pair<const char*, uint32_t> params[] = {{"REPORT.ZIP", 0}, {"report2.zip", 0},
                                                     {"X.Avi", 0},      {"A.TXT", 1024},
                                                     {"P.TGZ", 0},      {"XJPG", 1024}};
  Start(5);
  for (const auto& [name, param] : params) {
    const auto at = static_cast<size_t>(m_file->GetWriteOffset());
    ASSERT_EQ(Insert(m_tree.AddFile(name, text)), 0);
    const std::string bytes = test::ReadFile(m_image);
    const size_t data = at == 7560 ? kFirstItem + 40 : at + 40;
    ASSERT_EQ(U8At(bytes, data), 3) << name;
    EXPECT_EQ(U32At(bytes, data + 2), param) << name;
    EXPECT_EQ(U16At(bytes, data + 6) == 1024, param == 0) << name;
  }
}

TEST_F(CapsuleFileWrite, MarkedPathsAreSkippedAndTheTraceNeedsARoot) {
  const std::string file = m_tree.AddFile("F.TXT", "f");
  const std::string trace = m_tree.Beside("testdump.txt");
  Start(0);
  EXPECT_EQ(Insert(file + "? \t"), 0);
  EXPECT_EQ(std::filesystem::file_size(m_image), 7560U);
  EXPECT_EQ(m_state.previousInsertDir, "");
  EXPECT_FALSE(std::filesystem::exists(trace));

  m_state.hostView.SetRoot('c', m_tree.Beside(""));
  EXPECT_EQ(Insert(file), 0);
  EXPECT_EQ(Insert("C:\\F?"), 0);
  EXPECT_EQ(test::ReadFile(trace), "C:\\F.TXT\nPrev-\nC:\\F?\nPrev-C:\n");

  std::filesystem::rename(trace, m_tree.Beside("target"));
  std::filesystem::create_symlink(m_tree.Beside("target"), trace);
  EXPECT_EQ(Insert("C:\\F?"), 0);
  EXPECT_EQ(test::ReadFile(trace), "C:\\F.TXT\nPrev-\nC:\\F?\nPrev-C:\n");
}

TEST_F(CapsuleFileWrite, DirectoriesGoInOnceUnlessTheHostTakesThemOut) {
  const std::string directory = m_tree.AddDirectory("d");
  Start(0);
  ASSERT_EQ(Insert(directory), 0);
  const int offset = m_file->GetWriteOffset();
  EXPECT_EQ(Insert(directory), -1);
  EXPECT_EQ(m_file->GetWriteOffset(), offset);
  EXPECT_EQ(std::filesystem::file_size(m_image), static_cast<uintmax_t>(offset));
  EXPECT_EQ(Insert(m_tree.AddDirectory("e")), 0);

  CpsList& blocks = m_file->GetCurrentPartitionPtr()->GetFileBlocks();
  ASSERT_EQ(blocks.GetCount(), 6);
  for (int i = 0; i < 3; ++i) {
    delete static_cast<CapsuleFileBlock*>(blocks.GetAt(0));
    blocks.RemoveAt(0);
  }
  EXPECT_EQ(Insert(directory), 0);
  EXPECT_EQ(Insert(directory), -1);
  EXPECT_EQ(Insert(m_tree.AddDirectory("e")), -1);
}

TEST_F(CapsuleFileWrite, WhatCannotBeInsertedChangesNothing) {
  Start(0);
  const std::string huge = m_tree.AddFile("huge", "");
  std::filesystem::resize_file(m_tree.Source("huge"), uintmax_t{1} << 31);
  for (const std::string& path : {std::string("C:\\missing"), std::string("X:\\a"), std::string(),
                                  std::string("noseparator"), huge}) {
    EXPECT_EQ(Insert(path), -1) << path;
    EXPECT_EQ(m_file->GetCurrentPartition(), -1) << path;
    EXPECT_EQ(m_file->GetPartitions().GetCount(), 0) << path;
    EXPECT_EQ(std::filesystem::file_size(m_image), 7560U) << path;
  }
  EXPECT_EQ(m_file->InsertFile(nullptr, 0), -1);
}

TEST_F(CapsuleFileWrite, FailedInsertionsLeaveTheImageAsIfTheyHadNotBeen) {
  const std::string small = m_tree.AddFile("d/S.TXT", "small");
  const std::string large = m_tree.AddFile("d/LARGE.BIN", test::MixedBytes(100000, 7));
  const std::string next = m_tree.AddFile("d/N.TXT", "next");
  for (const int level : {0, 9}) {
    std::string images[2];
    for (const bool failing : {false, true}) {
      Start(level, (failing ? "failing" : "plain") + std::to_string(level));
      ASSERT_EQ(Insert("C:\\d"), 0);
      ASSERT_EQ(Insert(small), 0);
      if (failing) {
        const auto offset = static_cast<uintmax_t>(m_file->GetWriteOffset());
        for (const uintmax_t room : {1U, 40U, 45U, 3000U, 3700U, 40000U}) {
          for (const int partition : {0, 3}) {
            const test::ProcessLimit limit(RLIMIT_FSIZE, offset + room);
            ASSERT_EQ(Insert(large, partition), -1) << room;
            ASSERT_EQ(std::filesystem::file_size(m_image), offset) << room;
            ASSERT_EQ(m_file->GetCurrentPartition(), 0) << room;
            ASSERT_EQ(m_file->GetPartitions().GetCount(), 1) << room;
          }
        }
      }
      ASSERT_EQ(Insert(next), 0);
      images[failing ? 1 : 0] = Finish();
    }
    // Only the sector count still has the sources that were opened.
    EXPECT_EQ(U32At(images[1], 7056 + 14) - U32At(images[0], 7056 + 14), 12U * (100000 / 512 + 1));
    images[1].replace(7056 + 14, 4, images[0].substr(7056 + 14, 4));
    EXPECT_TRUE(images[0] == images[1]) << "level " << level;
  }
}

TEST_F(CapsuleFileWrite, ALongerOldFileIsNotCutByAFailure) {
  test::WriteFile(m_tree.Beside("old"), std::string(50000, 'x'));
  Start(0, "old");
  const std::string file = m_tree.AddFile("L.BIN", test::MixedBytes(60000, 1));
  {
    const test::ProcessLimit limit(RLIMIT_FSIZE, 30000);
    EXPECT_EQ(Insert(file), -1);
  }
  EXPECT_EQ(std::filesystem::file_size(m_image), 50000U);
  EXPECT_EQ(m_file->GetWriteOffset(), 7560);
}

}  // namespace
}  // namespace capsule
