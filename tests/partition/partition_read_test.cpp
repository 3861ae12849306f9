#include <gtest/gtest.h>

#include <string>

#include "capsule/blocks/file_block.h"
#include "capsule/partition/directory_support.h"
#include "tests/support/image_maker.h"
#include "tests/support/open_image.h"
#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

using test::BlockAt;
using test::ImageMaker;
using test::OpenImage;

// Names of a tree: "NAME(child child) NAME", first characters up to the first blank.
std::string Outline(CpsList& list) {
  std::string text;
  for (int i = 0; CapsuleFileBlock* block = BlockAt(list, i); ++i) {
    const CString& name = block->GetDirectoryEntry().ShortName();
    text += (i == 0 ? "" : " ") + name.substr(0, name.find(' '));
    if (block->FileList().GetCount() > 0) text += "(" + Outline(block->FileList()) + ")";
  }
  return text;
}

class PartitionReadTest : public testing::Test {
 protected:
  // Opens the image that `maker` lays out; what ReadImage gives.
  int Open(ImageMaker& maker) { return OpenBytes(maker.Finish()); }
  int OpenBytes(const std::string& bytes) {
    std::filesystem::remove(m_dir / "image");  // some file systems flush what is written over
    test::WriteFile(m_dir / "image", bytes);
    m_image = std::make_unique<OpenImage>(m_dir / "image");
    return m_image->Read();
  }
  std::string OutlineOf(int partition) {
    return Outline(m_image->Partition(partition)->GetFileBlocks());
  }

  test::TempDir m_dir;
  std::unique_ptr<OpenImage> m_image;
};

// A section as outlined: "D(" is a directory with its dots, ")" a zero entry, other letters are
// empty files.
void AddSection(ImageMaker& maker, const std::string& outline) {
  maker.BeginSection();
  for (size_t i = 0; i < outline.size(); ++i) {
    const std::string name = outline.substr(i, 1) + std::string(10, ' ');
    if (outline[i] == ')') {
      maker.Close();
    } else if (i + 1 < outline.size() && outline[i + 1] == '(') {
      maker.Folder(name);
      ++i;
    } else {
      maker.File(name, 0);
    }
  }
  maker.EndSection();
}

TEST_F(PartitionReadTest, ZeroEntriesCloseLevelsThatAreOpen) {
  ImageMaker maker(true);
  AddSection(maker, ")AD(FE()G))H");
  ASSERT_EQ(Open(maker), 0);
  EXPECT_EQ(OutlineOf(0), "A D(. .. F E(. ..) G) H");
}

TEST_F(PartitionReadTest, SectionsEndWhereTheNextBegins) {
  ImageMaker maker(true);
  for (const char* leftOpen : {"A(", "B(", "C("}) AddSection(maker, leftOpen);
  ASSERT_EQ(Open(maker), 0);
  EXPECT_EQ(OutlineOf(0) + OutlineOf(1) + OutlineOf(2), "A(. ..)B(. ..)C(. ..)");
}

TEST_F(PartitionReadTest, DirectoriesNestedAHundredThousandDeepOpenAndClose) {
  constexpr int kDepth = 100'000;
  ImageMaker maker(true);
  maker.BeginSection();
  for (int i = 0; i < kDepth; ++i) maker.Directory("D          ");
  maker.EndSection();
  ASSERT_EQ(Open(maker), 0);
  CapsuleFileBlock* block = BlockAt(m_image->Partition(0)->GetFileBlocks(), 0);
  int depth = 0;
  for (; block != nullptr; block = BlockAt(block->FileList(), 0)) ++depth;
  EXPECT_EQ(depth, kDepth);
}

TEST_F(PartitionReadTest, OffsetsThatAreNotInTheImageFailTheReading) {
  for (const uint32_t offset : {0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU, 0xFFFFFFFEU}) {
    for (const size_t which : {0U, 1U}) {
      ImageMaker maker(true);
      AddSection(maker, "A");
      maker.IndexRecords()[which].offset = offset;
      for (const size_t i : {size_t{0}, which}) maker.IndexRecords()[i].length = 0;
      EXPECT_EQ(Open(maker), -1) << offset << " " << which;
    }
  }
}

// The same record again and again: each gives an entry, and nothing is made of the size it claims.
TEST_F(PartitionReadTest, RepeatedRecordsCostWhatTheIndexCosts) {
  ImageMaker maker(true);
  maker.BeginSection();
  maker.File("A          ", 0xFFFFFFFF);
  maker.EndSection();
  auto& records = maker.IndexRecords();
  records.insert(records.begin() + 1, 50'000, records[1]);
  ASSERT_EQ(Open(maker), 0);
  EXPECT_EQ(m_image->Partition(0)->GetFileBlocks().GetCount(), 50'001);
}

TEST_F(PartitionReadTest, ARunOfDataRecordsIsSkipped) {
  ImageMaker maker(false);
  maker.BeginSection();
  maker.File("A          ", 20000);
  const int begin = static_cast<int>(maker.Here());
  maker.Stored(std::string(20000, 'a'));
  const int end = static_cast<int>(maker.Here());
  maker.EndSection();
  ASSERT_EQ(Open(maker), 0);
  int position = 0;
  CapsulePartition* partition = m_image->Partition(0);
  EXPECT_EQ(partition->ReadDataBlocks(m_image->Descriptor(), begin, &position), 0);
  EXPECT_EQ(position, end);
}

// An image whose only file lies behind the index, so that cutting it leaves the index whole.
std::string ImageWithFileAtItsEnd(const std::string& content) {
  ImageMaker file(false);
  const size_t begin = file.Here();
  file.File("A          ", static_cast<uint32_t>(content.size()));
  file.Stored(content);
  ImageMaker maker(false);
  maker.BeginSection();
  maker.IndexRecords()[0].length = 0;  // the walk ends where a record reaches the index
  constexpr uint32_t kIndexSize = kIndexPreamble + 2 * 11;
  maker.IndexRecords().push_back({kIndexFile, "", maker.Here() + kIndexSize, kDirRecordSize});
  std::string image = maker.Finish();
  return image.append(file.Bytes().begin() + static_cast<std::ptrdiff_t>(begin),
                      file.Bytes().end());
}

TEST_F(PartitionReadTest, CutImagesGiveNothingWrong) {
  std::string content(9000, '\0');
  for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i % 251);
  const std::string whole = ImageWithFileAtItsEnd(content);
  const size_t record = whole.size() - 8 - 1024 - 8 - 8192 - kDirRecordSize;
  for (size_t size = whole.size(); size >= record; size -= size > record + 100 ? 7 : 1) {
    const int result = OpenBytes(whole.substr(0, size));
    if (size < record + kDirRecordSize) {
      EXPECT_EQ(result, -1) << size;
      continue;
    }
    ASSERT_EQ(result, 0) << size;
    CapsuleFileBlock& block = *BlockAt(m_image->Partition(0)->GetFileBlocks(), 0);
    EXPECT_EQ(test::ExtractAll(m_image->File(), block), size == whole.size() ? content : "failed");
    const bool firstRecord = size >= record + kDirRecordSize + 8 + 8192;
    EXPECT_EQ(test::Extract(m_image->File(), block, 100, 5000),
              firstRecord ? content.substr(100, 5000) : "failed");
    const bool inPayload = size >= record + kDirRecordSize + 8 && size != whole.size() &&
                           (!firstRecord || size >= whole.size() - 1024);
    EXPECT_NE(block.ReadDataBlocks(m_image->Descriptor(), block.GetDUPDATAOffset()), inPayload)
        << size;
  }
}

// Every byte that says something is set to what has broken readers before. Whatever comes out is
// as long as its entry says.
TEST_F(PartitionReadTest, DamagedImagesAreReadOrRefused) {
  const std::string whole =
      test::ReadFile(std::string(CAPSULE_TEST_DATA) + "/images/w_files_only.img");
  int read = 0;
  for (size_t at = 656; at < whole.size(); ++at) {
    if (whole[at] == 0 && at % 4096 > 16) continue;
    const auto old = static_cast<unsigned char>(whole[at]);
    for (const unsigned value : {0x00U, 0x01U, 0x7FU, 0x80U, 0xFFU, old + 1U, old - 1U}) {
      std::string damaged = whole;
      damaged[at] = static_cast<char>(value);
      if (OpenBytes(damaged) != 0) continue;
      ++read;
      for (int i = 0; CapsulePartition* partition = m_image->Partition(i); ++i) {
        test::ForEachBlock(partition->GetFileBlocks(), [&](CapsuleFileBlock& block) {
          if (block.GetDirectoryEntry().IsDirectory() != 0) return;
          const std::string content = test::ExtractAll(m_image->File(), block);
          if (content == "failed") return;
          EXPECT_EQ(content.size(), block.GetDirectoryEntry().FileSize());
        });
      }
    }
  }
  EXPECT_GT(read, 1000);
}

TEST(DirectorySupportTest, PathsAreSplit) {
  const std::vector<std::pair<const char*, const char*>> cases = {
      {"0:\\", "0| root"}, {"\\", "| root"}, {"/", "| root"},  {"0:\\A\\B", "0||A|B"},
      {"0:A/B/", "0|A|B"}, {"0:", "0"},      {"x", "|x"},      {"\\\\a", "|||a"},
      {"::b", ":|b"},      {"", "none"},     {nullptr, "none"}};
  for (const auto& [path, expected] : cases) {
    const DirectorySupport support(path);
    std::string text = support.Drive() == nullptr ? "none" : support.Drive();
    for (int i = 0; i < support.NumberEntries(); ++i) text += "|" + *support[i];
    EXPECT_EQ(text + (support.IsRoot() != 0 ? " root" : ""), expected);
    EXPECT_EQ(support[support.NumberEntries()], nullptr);
    EXPECT_EQ(support[-1], nullptr);
  }
}

}  // namespace
}  // namespace capsule
