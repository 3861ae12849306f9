#include "tests/support/open_image.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <span>
#include <string>

#include "capsule/blocks/file_block.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/header_format.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"
#include "tests/support/image_maker.h"
#include "tests/support/json.h"
#include "tests/support/sample_images.h"
#include "tests/support/sha256.h"
#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

using test::BlockAt;
using test::Json;
using test::OpenImage;

std::string Hex(std::span<const unsigned char> bytes) {
  std::string text;
  for (const unsigned char byte : bytes) {
    for (const int digit : {byte >> 4, byte & 15}) text += "0123456789abcdef"[digit];
  }
  return text;
}

std::string Utf8OfLatin1(const std::string& bytes) {
  std::u16string units;
  for (const char c : bytes) units += static_cast<unsigned char>(c);
  return Utf16ToUtf8(units);
}

void CheckEntry(const _DirectoryEntry& record, const Json& expected) {
  const _ShortDirEntry& entry = record.OtherEntry;
  const std::pair<const char*, int64_t> fields[] = {
      {"attr", entry.Attribute},           {"size", entry.FileSize},
      {"csec", entry.CreationSeconds},     {"ctime", entry.CreationTime},
      {"cdate", entry.CreationDate},       {"adate", entry.LastAccessDate},
      {"wtime", entry.WriteTime},          {"wdate", entry.WriteDate},
      {"longBytes", record.LongNameLength}};
  for (const auto& [key, value] : fields) EXPECT_EQ(value, expected.at(key)) << key;
  if (expected.at("long").is_string()) {
    const auto size = static_cast<size_t>(record.LongNameLength);
    EXPECT_EQ(Utf16ToUtf8(DecodeLongName({record.LongName, size})), expected.at("long"));
  }
}

// Compares the blocks of `list` with `expected`; how many there are, all levels together.
int CheckTree(OpenImage& image, CapsulePartition& partition, CpsList& list, const Json& expected) {
  EXPECT_EQ(static_cast<size_t>(list.GetCount()), expected.size());
  const _DirectoryEntry* record = partition.SetupDirectoryEntry(list);
  int count = 0;
  for (const Json& item : expected) {
    CapsuleFileBlock* block = BlockAt(list, count++);
    if (block == nullptr || record == nullptr) return count;
    SCOPED_TRACE(item.at("short").get<std::string>());
    EXPECT_EQ(record, block->GetDirectoryPointer());
    EXPECT_EQ(Utf8OfLatin1(block->GetDirectoryEntry().ShortName()), item.at("short"));
    CheckEntry(*record, item);
    EXPECT_EQ(block->GetFileBlockStartOffset(), item.at("start").get<int>());
    EXPECT_EQ(block->GetDUPDATAOffset(), item.at("dup").get<int>());
    EXPECT_EQ(block->GetFileBlockEndOffset(), item.at("end").get<int>());
    if (item.contains("sha256")) {
      EXPECT_EQ(test::Sha256(test::ExtractAll(image.File(), *block)), item.at("sha256"));
    }
    if (item.contains("children")) {
      CheckTree(image, partition, block->FileList(), item.at("children"));
      const CapsuleDirectoryEntry* owner = record->Owner;  // unaligned in its record
      EXPECT_EQ(owner, &block->GetDirectoryEntry());
    }
    record = record->Next;
  }
  EXPECT_EQ(record, nullptr);
  return count;
}

class SampleImageTest : public testing::TestWithParam<size_t> {
 protected:
  const Json& Sample() const { return test::SampleImages().at(GetParam()); }
  std::string Path() const { return test::SamplePath(Sample().at("file")); }
};

TEST_P(SampleImageTest, HeaderIsDecoded) {
  OpenImage image(Path());
  ASSERT_EQ(image.Read(1), 0);
  EXPECT_EQ(image.File().GetPartitions().GetCount(), 0);
  const Json& expected = Sample().at("header");
  EXPECT_EQ(image.File().GetVersionString(), expected.at("version").get<std::string>());
  EXPECT_EQ(image.File().IsCompressed(), expected.at("compressionFlag").get<int>());
  const _NewImageHeader* header = image.File().GetImageFileHeader();
  EXPECT_EQ(header->Version, expected.at("version").get<std::string>());
  EXPECT_EQ(header->PartitionCount, expected.at("partitionCount").get<int>());
  EXPECT_EQ(header->CompressionFlag, expected.at("compressionFlag").get<int>());
  EXPECT_EQ(platform::LoadLe32(header->Middle + kIndexOffsetOffset - 656),
            expected.at("indexOffset"));
  EXPECT_EQ(header->SectorArea[0], 0xAB);
  const _PartitionNode* node = header->Partitions;
  for (const Json& record : expected.at("partitionRecords")) {
    ASSERT_NE(node, nullptr);
    const std::string stored = record;
    EXPECT_EQ(Hex(EncodePartition(node->Record)), stored.substr(0, 48));
    // The compact layout keeps 16 bytes more, of which the last 12 are handed on.
    const std::string extra = stored.size() > 48 ? stored.substr(56) : std::string(24, '0');
    EXPECT_EQ(Hex(node->Extra), extra);
    node = node->Next;
  }
  EXPECT_EQ(node, nullptr);
}

TEST_P(SampleImageTest, TreesAndContentsComeBack) {
  for (const bool readFirst : {false, true}) {
    OpenImage image(Path());
    ASSERT_EQ(image.Read(), 0);
    int number = 0;
    for (const Json& expected : Sample().at("partitions")) {
      SCOPED_TRACE(std::to_string(number) + (readFirst ? ", all data blocks read" : ""));
      CapsulePartition* partition = image.Partition(number++);
      ASSERT_NE(partition, nullptr);
      EXPECT_EQ(partition->GetStartOffset(), expected.at("offset").get<int>());
      EXPECT_EQ(partition->IsFat(), 1);
      CpsList& blocks = partition->GetFileBlocks();
      test::ForEachBlock(blocks, [&](CapsuleFileBlock& block) {
        if (!readFirst) return;
        EXPECT_TRUE(block.ReadDataBlocks(image.Descriptor(), block.GetDUPDATAOffset()));
      });
      EXPECT_GT(CheckTree(image, *partition, blocks, expected.at("tree")), 0);
    }
    EXPECT_EQ(image.Partition(number), nullptr);
  }
}

INSTANTIATE_TEST_SUITE_P(All, SampleImageTest, testing::Range<size_t>(0, 5));

// How ReadImage(1) and then ReadImage(0) end on `bytes`.
std::pair<int, int> ReadBytes(const std::string& bytes) {
  const test::TempDir dir;
  test::WriteFile(dir / "image", bytes);
  return {OpenImage(dir / "image").Read(1), OpenImage(dir / "image").Read(0)};
}

TEST(OpenImageTest, HeadersThatClaimTooMuchAreRefused) {
  const std::string sound = test::ReadFile(test::SamplePath("w_three_open.img"));
  const auto readChanged = [&](size_t offset, const std::string& bytes) {
    return ReadBytes(std::string(sound).replace(offset, bytes.size(), bytes));
  };
  EXPECT_EQ(ReadBytes(sound.substr(0, kHeaderSize - 1)), std::pair(-1, -1));
  EXPECT_EQ(readChanged(kPartitionCountOffset, "\x0B"), std::pair(-1, -1));
  EXPECT_EQ(readChanged(kPartitionCountOffset, "\xFF"), std::pair(-1, -1));
  EXPECT_EQ(readChanged(kPartitionCountOffset, "\x0A"), std::pair(0, -1));  // no 7 sections more
  EXPECT_EQ(readChanged(kPartitionCountOffset, "\x02"), std::pair(0, 0));
  // No index, or one behind the end.
  EXPECT_EQ(readChanged(kIndexOffsetOffset, std::string(4, '\0')), std::pair(0, -1));
  EXPECT_EQ(readChanged(kIndexOffsetOffset + 3, "\x7F"), std::pair(0, -1));
  EXPECT_EQ(readChanged(kIndexOffsetOffset + 3, "\xFF"), std::pair(0, -1));
}

TEST(OpenImageTest, FilesThatCannotBeOpenedGiveAnErrorOrThrowZero) {
  const test::TempDir dir;
  const std::string path = dir / "image";
  OpenImage missing(path);
  EXPECT_EQ(missing.Descriptor(), 0);
  EXPECT_EQ(missing.File().GetLastError(), ENOENT);
  EXPECT_EQ(missing.Read(), -1);

  test::WriteFile(path, test::ReadFile(test::SamplePath("w_files_only.img")));
  CapsuleFile file(path.c_str());
  std::filesystem::remove(path);  // before its index is opened
  try {
    file.ReadImage(1);
    ADD_FAILURE() << "nothing was thrown";
  } catch (int thrown) {
    EXPECT_EQ(thrown, 0);
  }
  EXPECT_TRUE(file.CloseImageFileHandle());
}

TEST(OpenImageTest, AHeaderOfTooFewBytesIsInvalidAndAVersionEnds) {
  const test::TempDir dir;
  std::string bytes = test::ImageMaker(true).Finish();
  bytes.replace(0, 256, std::string(256, 'v'));
  test::WriteFile(dir / "image", bytes);
  OpenImage image(dir / "image");
  ASSERT_EQ(image.Read(1), 0);
  EXPECT_EQ(std::string(image.File().GetVersionString()), std::string(255, 'v'));

  test::WriteFile(dir / "short", bytes.substr(0, 7559));
  OpenImage cut(dir / "short");
  errno = EMFILE;  // of long ago
  EXPECT_EQ(cut.Read(), -1);
  EXPECT_EQ(cut.File().GetLastError(), EINVAL);
}

TEST(OpenImageTest, SystemIdsChooseTheDirectoryType) {
  const test::TempDir dir;
  test::ImageMaker maker(true);
  for (const int systemId : {4, 5, 6, 14, 0, 8, 12, 15, 255}) {  // four of FAT16
    maker.BeginSection(static_cast<uint8_t>(systemId));
    maker.File("A       TXT", 0);
    maker.EndSection();
  }
  test::WriteFile(dir / "types", maker.Finish());
  OpenImage image(dir / "types");
  ASSERT_EQ(image.Read(), 0);
  for (int i = 0; i < 9; ++i) {
    CapsulePartition& partition = *image.Partition(i);
    EXPECT_EQ(partition.GetPartitionType(),
              i < 4 ? CapsuleDirectoryEntry::DirTypeFat16 : CapsuleDirectoryEntry::DirTypeFat32)
        << i;
    EXPECT_EQ(partition.GetFileBlocks().GetCount(), 1) << i;
  }
}

TEST(OpenImageTest, DirectoriesAreFoundByPath) {
  OpenImage image(test::SamplePath("w_names.img"));
  ASSERT_EQ(image.Read(), 0);
  const auto firstName = [&](const char* path) -> std::string {
    const _DirectoryEntry* entry = image.File().GetDirectory(path);
    return entry == nullptr ? "none" : entry->Owner->ShortName();
  };
  EXPECT_EQ(firstName("0:\\"), "NAMES   .   ");
  EXPECT_EQ(firstName("\\"), "NAMES   .   ");
  EXPECT_EQ(firstName("0:\\NAMES   .   "), ".       .   ");
  EXPECT_EQ(firstName("0:/NAMESW~1.   /"), ".       .   ");
  EXPECT_EQ(firstName("NAMES   .   "), ".       .   ");
  EXPECT_EQ(firstName("0:/DEEP    .   \\L0      .   "), ".       .   ");
  for (const char* path : {"0:", "", "1:\\", "9:\\", "0:\\\\", "0:\\NAMES", "0:\\names   .   ",
                           "0:\\NAMES   .   \\ABCDEFG2.TXT", "0:\\NAMES   .   \\NONE    .   "}) {
    EXPECT_EQ(firstName(path), "none") << path;
  }
}

}  // namespace
}  // namespace capsule
