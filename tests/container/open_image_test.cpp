#include "tests/support/open_image.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <string>
#include <vector>

#include "capsule/blocks/file_block.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/image_index.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"
#include "tests/support/image_maker.h"
#include "tests/support/json.h"
#include "tests/support/sample_images.h"
#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

using test::BlockAt;
using test::Json;
using test::OpenImage;

std::string Hex(const unsigned char* bytes, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    constexpr const char* kDigits = "0123456789abcdef";
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

std::string Sha256(const std::string& bytes) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(static_cast<const unsigned char*>(static_cast<const void*>(bytes.data())), bytes.size(),
         digest);
  return Hex(digest, sizeof digest);
}

// The bytes of a name, which the manifest gives as the text that they are in Latin-1.
std::string NameBytes(const Json& text) {
  std::string bytes;
  const std::string utf8 = text.get<std::string>();
  for (size_t i = 0; i < utf8.size(); ++i) {
    const auto byte = static_cast<unsigned char>(utf8[i]);
    if (byte < 0x80) {
      bytes += utf8[i];
    } else {
      bytes += static_cast<char>((byte & 3) << 6 | (utf8[++i] & 0x3F));
    }
  }
  return bytes;
}

std::string LongName(const _DirectoryEntry& record) {
  const std::span<const unsigned char> units(record.LongName,
                                             static_cast<size_t>(record.LongNameLength));
  return LongNameToBytes(DecodeLongName(units));
}

void CheckEntry(const _DirectoryEntry& record, const Json& expected) {
  const _ShortDirEntry& entry = record.OtherEntry;
  EXPECT_EQ(entry.Attribute, expected.at("attr").get<int>());
  EXPECT_EQ(entry.FileSize, expected.at("size").get<uint32_t>());
  EXPECT_EQ(entry.CreationSeconds, expected.at("csec").get<int>());
  EXPECT_EQ(entry.CreationTime, expected.at("ctime").get<int>());
  EXPECT_EQ(entry.CreationDate, expected.at("cdate").get<int>());
  EXPECT_EQ(entry.LastAccessDate, expected.at("adate").get<int>());
  EXPECT_EQ(entry.WriteTime, expected.at("wtime").get<int>());
  EXPECT_EQ(entry.WriteDate, expected.at("wdate").get<int>());
  EXPECT_EQ(record.LongNameLength, expected.at("longBytes").get<int>());
  if (expected.at("long").is_string()) {
    EXPECT_EQ(LongName(record), NameBytes(expected.at("long")));
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
    EXPECT_EQ(block->GetDirectoryEntry().ShortName(), NameBytes(item.at("short")));
    CheckEntry(*record, item);
    EXPECT_EQ(block->GetFileBlockStartOffset(), item.at("start").get<int>());
    EXPECT_EQ(block->GetDUPDATAOffset(), item.at("dup").get<int>());
    EXPECT_EQ(block->GetFileBlockEndOffset(), item.at("end").get<int>());
    if (item.contains("sha256")) {
      EXPECT_EQ(Sha256(test::ExtractAll(image.File(), *block)), item.at("sha256"));
    }
    if (item.contains("children")) {
      CheckTree(image, partition, block->FileList(), item.at("children"));
      const CapsuleDirectoryEntry* owner = record->Owner;
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
  const unsigned char* from656 = header->Middle;
  EXPECT_EQ(platform::LoadLe32(from656 + kIndexOffsetOffset - 656), expected.at("indexOffset"));
  EXPECT_EQ(from656[kCompressionMarkOffset - 656], expected.at("mark719").get<int>());
  EXPECT_EQ(from656[kConstant3Offset - 656], expected.at("byte720").get<int>());
  EXPECT_EQ(header->SectorArea[0], 0xAB);
  const _PartitionNode* node = header->Partitions;
  for (const Json& record : expected.at("partitionRecords")) {
    ASSERT_NE(node, nullptr);
    const std::string stored = record;
    EXPECT_EQ(Hex(EncodePartition(node->Record).data(), 24), stored.substr(0, 48));
    // The compact layout keeps 16 bytes more, of which the last 12 are handed on.
    const std::string extra = stored.size() > 48 ? stored.substr(56) : std::string(24, '0');
    EXPECT_EQ(Hex(node->Extra, sizeof node->Extra), extra);
    node = node->Next;
  }
  EXPECT_EQ(node, nullptr);
}

TEST_P(SampleImageTest, IndexHandsOutItsOffsets) {
  OpenImage image(Path());
  ASSERT_EQ(image.Read(1), 0);
  ImageIndex* index = ImageIndex::GetCurrentIndexInstance();
  for (const int offset : Sample().at("fileOffsets")) {
    EXPECT_EQ(index->GetNextFileOffset(), offset);
  }
  for (const int offset : Sample().at("partitionOffsets")) {
    EXPECT_EQ(index->PeekNextPartitionOffset(), offset);
    EXPECT_EQ(index->GetNextPartitionOffset(), offset);
  }
  EXPECT_EQ(index->GetNextFileOffset(), -1);
  EXPECT_EQ(index->PeekNextPartitionOffset(), -1);
}

TEST_P(SampleImageTest, TreesAndContentsComeBack) {
  OpenImage image(Path());
  ASSERT_EQ(image.Read(), 0);
  const Json& partitions = Sample().at("partitions");
  ASSERT_EQ(static_cast<size_t>(image.File().GetPartitions().GetCount()), partitions.size());
  int number = 0;
  for (const Json& expected : partitions) {
    SCOPED_TRACE(number);
    CapsulePartition* partition = image.Partition(number++);
    EXPECT_EQ(partition->GetStartOffset(), expected.at("offset").get<int>());
    EXPECT_EQ(partition->GetPartitionType(), CapsuleDirectoryEntry::DirTypeFat32);
    EXPECT_EQ(partition->IsFat(), 1);
    EXPECT_GT(CheckTree(image, *partition, partition->GetFileBlocks(), expected.at("tree")), 0);
  }
}

TEST_P(SampleImageTest, ContentsComeBackAfterReadingAllDataBlocksToo) {
  OpenImage image(Path());
  ASSERT_EQ(image.Read(), 0);
  for (int i = 0; CapsulePartition* partition = image.Partition(i); ++i) {
    test::ForEachBlock(partition->GetFileBlocks(), [&](CapsuleFileBlock& block) {
      EXPECT_TRUE(block.ReadDataBlocks(image.Descriptor(), block.GetDUPDATAOffset()));
    });
    CheckTree(image, *partition, partition->GetFileBlocks(),
              Sample().at("partitions").at(static_cast<size_t>(i)).at("tree"));
  }
}

INSTANTIATE_TEST_SUITE_P(All, SampleImageTest, testing::Range<size_t>(0, 5));

TEST(OpenImageTest, AMissingFileGivesAnError) {
  OpenImage image("/nonexistent/image");
  EXPECT_EQ(image.Descriptor(), 0);
  EXPECT_EQ(image.File().GetLastError(), ENOENT);
  EXPECT_EQ(image.Read(), -1);
  EXPECT_FALSE(image.File().CloseImageFileHandle());
}

TEST(OpenImageTest, AShortHeaderIsRefused) {
  const test::TempDir dir;
  test::WriteFile(dir / "short", std::string(kHeaderSize - 1, 'x'));
  EXPECT_EQ(OpenImage(dir / "short").Read(1), -1);
}

// How ReadImage(1) and then ReadImage(0) end on a sample with one header byte changed.
std::pair<int, int> ReadChanged(size_t offset, unsigned char value) {
  const test::TempDir dir;
  std::string bytes = test::ReadFile(test::SamplePath("w_three_open.img"));
  bytes[offset] = static_cast<char>(value);
  test::WriteFile(dir / "changed", bytes);
  return {OpenImage(dir / "changed").Read(1), OpenImage(dir / "changed").Read(0)};
}

TEST(OpenImageTest, HeadersThatClaimTooMuchAreRefused) {
  EXPECT_EQ(ReadChanged(kPartitionCountOffset, 11), std::pair(-1, -1));
  EXPECT_EQ(ReadChanged(kPartitionCountOffset, 255), std::pair(-1, -1));
  EXPECT_EQ(ReadChanged(kPartitionCountOffset, 10), std::pair(0, -1));  // no seven more sections
  EXPECT_EQ(ReadChanged(kPartitionCountOffset, 2), std::pair(0, 0));
}

TEST(OpenImageTest, AnIndexBehindTheEndIsEmpty) {
  EXPECT_EQ(ReadChanged(kIndexOffsetOffset + 3, 0x7F), std::pair(0, -1));
  EXPECT_EQ(ReadChanged(kIndexOffsetOffset + 3, 0xFF), std::pair(0, -1));
}

TEST(OpenImageTest, AnImageWithoutIndexHasAHeaderOnly) {
  const test::TempDir dir;
  test::ImageMaker maker(true);
  maker.BeginSection();
  maker.EndSection();
  test::WriteFile(dir / "plain", std::string(maker.Bytes().begin(), maker.Bytes().end()));
  EXPECT_EQ(OpenImage(dir / "plain").Read(1), 0);
  EXPECT_EQ(OpenImage(dir / "plain").Read(0), -1);
}

TEST(OpenImageTest, AnIndexThatCannotBeOpenedThrowsZero) {
  const test::TempDir dir;
  const std::string path = dir / "gone";
  test::WriteFile(path, test::ReadFile(test::SamplePath("w_files_only.img")));
  CapsuleFile file(path.c_str());
  std::filesystem::remove(path);
  try {
    file.ReadImage(1);
    ADD_FAILURE() << "nothing was thrown";
  } catch (int thrown) {
    EXPECT_EQ(thrown, 0);
  }
  EXPECT_TRUE(file.CloseImageFileHandle());
}

TEST(OpenImageTest, SystemIdsChooseTheDirectoryType) {
  using Entry = CapsuleDirectoryEntry;
  const std::vector<std::pair<uint8_t, Entry::DirectoryType>> types = {
      {4, Entry::DirTypeFat16},  {5, Entry::DirTypeFat16},  {6, Entry::DirTypeFat16},
      {14, Entry::DirTypeFat16}, {0, Entry::DirTypeFat32},  {8, Entry::DirTypeFat32},
      {12, Entry::DirTypeFat32}, {15, Entry::DirTypeFat32}, {255, Entry::DirTypeFat32}};
  const test::TempDir dir;
  test::ImageMaker maker(true);
  for (const auto& [systemId, type] : types) {
    maker.BeginSection(systemId);
    maker.File("A       TXT", 0);
    maker.EndSection();
  }
  test::WriteFile(dir / "types", maker.Finish());
  OpenImage image(dir / "types");
  ASSERT_EQ(image.Read(), 0);
  for (size_t i = 0; i < types.size(); ++i) {
    CapsulePartition* partition = image.Partition(static_cast<int>(i));
    EXPECT_EQ(partition->GetPartitionType(), types[i].second) << i;
    EXPECT_EQ(partition->GetFileBlocks().GetCount(), 1) << i;
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
  for (const char* path : {"0:", "", "1:\\", "9:\\", "0:\\\\", "0:\\NAMES", "0:\\names   .   ",
                           "0:\\NAMES   .   \\ABCDEFG2.TXT", "0:\\NAMES   .   \\NONE    .   "}) {
    EXPECT_EQ(firstName(path), "none") << path;
  }
}

}  // namespace
}  // namespace capsule
