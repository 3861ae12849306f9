// Images with NTFS sections: a sample of another writer, and images made from real volumes.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "capsule/container/image_index.h"
#include "tests/support/fat_section.h"
#include "tests/support/json.h"
#include "tests/support/ntfs_record.h"
#include "tests/support/ntfs_section.h"
#include "tests/support/open_image.h"
#include "tests/support/sample_images.h"
#include "tests/support/sha256.h"
#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

using test::BlockAt;
using test::Bytes;
using test::Json;
using test::NtfsVolume;
using test::OpenImage;

const NtfsVolume& Tree() {
  static const NtfsVolume volume(test::UnpackVolume("vol_tree.ntfs"));
  return volume;
}

const NtfsVolume& Flat() {
  static const NtfsVolume volume(test::UnpackVolume("vol_flat.ntfs"));
  return volume;
}

std::string Text(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

void CheckSample(OpenImage& image, CpsList& list, const Json& expected) {
  ASSERT_EQ(static_cast<size_t>(list.GetCount()), expected.size());
  int i = 0;
  for (const Json& item : expected) {
    SCOPED_TRACE(item.at("start").get<int>());
    CapsuleFileBlock& block = *BlockAt(list, i++);
    const _ShortDirEntry& entry = block.GetDirectoryPointer()->OtherEntry;
    EXPECT_EQ(block.GetDirectoryEntry().ShortName(), item.at("short").get<std::string>());
    EXPECT_EQ(entry.Attribute, item.at("attr").get<int>());
    EXPECT_EQ(+entry.CreationTime, item.at("ctime").get<int>());
    EXPECT_EQ(+entry.CreationDate, item.at("cdate").get<int>());
    EXPECT_EQ(+entry.LastAccessDate, item.at("adate").get<int>());
    EXPECT_EQ(+entry.WriteTime, item.at("wtime").get<int>());
    EXPECT_EQ(+entry.WriteDate, item.at("wdate").get<int>());
    EXPECT_EQ(block.GetFileBlockStartOffset(), item.at("start").get<int>());
    if (item.contains("dataStart")) {
      EXPECT_EQ(block.GetNTFSDataBlockStart(), item.at("dataStart").get<int>());
    }
    if (item.contains("size")) {
      EXPECT_EQ(+entry.FileSize, item.at("size").get<uint32_t>());
    }
    if (item.contains("sha256")) {
      EXPECT_EQ(test::Sha256(test::ExtractAll(image.File(), block)), item.at("sha256"));
    }
    if (item.contains("children")) CheckSample(image, block.FileList(), item.at("children"));
  }
}

TEST(OpenNtfsTest, SampleOfAnotherWriter) {
  const Json expected = test::ParseJson(test::ReadFile(test::SamplePath("n_flat_old.json")));
  OpenImage image(test::SamplePath("n_flat_old.img"));
  ASSERT_EQ(image.Read(), 0);
  CapsulePartition& partition = *image.Partition(0);
  EXPECT_EQ(partition.GetPartitionType(), CapsuleDirectoryEntry::DirTypeNtfs);
  EXPECT_EQ(partition.IsUnknown(), 0);
  CheckSample(image, partition.GetFileBlocks(), expected.at("children"));
  EXPECT_NE(image.File().GetDirectory("0:\\$Extend .   "), nullptr);
  // The data of the file system's own files is not in the image.
  CapsuleFileBlock* log = BlockAt(partition.GetFileBlocks(), 5);
  ASSERT_EQ(log->GetDirectoryEntry().ShortName(), "$LogFile.   ");
  EXPECT_FALSE(log->ReadNTFSDataBlocks(&image.File(), log));
  EXPECT_EQ(test::ExtractAll(image.File(), *log), "failed");
}

// Compares a folder with what the volume holds; the number of files whose contents were compared,
// three files of the file system itself among them.
int CheckFolder(OpenImage& image, CpsList& list, const NtfsVolume& volume, uint32_t folder) {
  const std::vector<uint32_t> children = volume.Children(folder);
  EXPECT_EQ(static_cast<size_t>(list.GetCount()), children.size());
  int files = 0;
  for (size_t i = 0; i < children.size(); ++i) {
    CapsuleFileBlock* block = BlockAt(list, static_cast<int>(i));
    if (block == nullptr) return files;
    const uint32_t number = children[i];
    SCOPED_TRACE(number);
    EXPECT_EQ(block->GetDirectoryEntry().NtfsFullName(), volume.Name(number));
    EXPECT_EQ(block->GetDirectoryEntry().NTFSIsDirectory() != 0, volume.IsDirectory(number));
    if (volume.IsDirectory(number)) {
      files += CheckFolder(image, block->FileList(), volume, number);
    } else if (number >= NtfsVolume::kFirstUserFile) {
      const std::string data = Text(volume.Data(number));
      EXPECT_EQ(block->GetDirectoryEntry().FileSize(), data.size());
      EXPECT_EQ(test::ExtractAll(image.File(), *block), data);
      ++files;
    }
  }
  return files;
}

TEST(OpenNtfsTest, RealVolumesInBothRecordLayouts) {
  const test::TempDir dir;
  for (const bool compressed : {true, false}) {
    for (const bool earlier : {true, false}) {
      test::ForeignImage foreign({.compressed = compressed});
      PutNtfsSection(foreign, Tree(), {.earlierLayout = earlier});
      PutNtfsSection(foreign, Flat(), {.earlierLayout = earlier});
      test::WriteFile(dir / "image", Text(foreign.Finish()));
      OpenImage image(dir / "image");
      ASSERT_EQ(image.Read(), 0);
      EXPECT_EQ(CheckFolder(image, image.Partition(0)->GetFileBlocks(), Tree(), NtfsVolume::kRoot),
                131);
      EXPECT_EQ(CheckFolder(image, image.Partition(1)->GetFileBlocks(), Flat(), NtfsVolume::kRoot),
                101);
    }
  }
}

std::string Noise(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string text(size, ' ');
  for (char& c : text) c = static_cast<char>(random() % 7 == 0 ? random() : 'a' + random() % 3);
  return text;
}

Bytes ToBytes(const std::string& text) { return {text.begin(), text.end()}; }

std::vector<test::ForeignItem> FatItems(unsigned seed) {
  std::vector<test::ForeignItem> items(3);
  items[0] = {.shortName = "SMALL   TXT", .longName = u"small but long.txt"};
  items[0].content = ToBytes(Noise(700, seed));
  items[1] = {.shortName = "FOLDER     ", .directory = true};
  items[1].children.push_back({.shortName = "BIG     BIN"});
  items[1].children[0].content = ToBytes(Noise(100000, seed + 1));
  items[2] = {.shortName = "STORED  ZIP"};
  items[2].content = ToBytes(Noise(20000, seed + 2));
  items[2].stored = true;
  return items;
}

void CheckFat(OpenImage& image, CpsList& list, const std::vector<test::ForeignItem>& items,
              int skip) {
  ASSERT_EQ(list.GetCount(), static_cast<int>(items.size()) + skip);
  for (size_t i = 0; i < items.size(); ++i) {
    CapsuleFileBlock& block = *BlockAt(list, static_cast<int>(i) + skip);
    EXPECT_EQ(block.GetDirectoryEntry().ShortName(),
              items[i].shortName.substr(0, 8) + "." + items[i].shortName.substr(8));
    if (items[i].directory) {
      CheckFat(image, block.FileList(), items[i].children, 2);
    } else {
      EXPECT_EQ(test::ExtractAll(image.File(), block), Text(items[i].content));
    }
  }
}

TEST(OpenNtfsTest, ScrambledCompactImageOfThreePartitions) {
  const test::TempDir dir;
  const std::string longKey(40, 'k');
  for (const std::string& key : {std::string("a key"), std::string(), longKey}) {
    for (const uint16_t tail : {uint16_t{800}, uint16_t{0}, uint16_t{5300}}) {
      test::ForeignImage foreign({.tailOffset = tail, .scrambled = true, .key = key});
      foreign.IndexMark(1);
      PutFatSection(foreign, FatItems(1), {.systemId = 6, .chunkSize = 16384, .notes = true});
      PutNtfsSection(foreign, Tree(), {.earlierLayout = true});
      PutFatSection(foreign, FatItems(9), {.systemId = 12});
      test::WriteFile(dir / "image", Text(foreign.Finish()));

      OpenImage image(dir / "image");
      ASSERT_EQ(image.Read(), 0) << tail;
      ASSERT_EQ(image.File().GetPartitions().GetCount(), 3);
      EXPECT_EQ(image.File().IsCompressed(), 1);
      const _NewImageHeader& header = *image.File().GetImageFileHeader();
      EXPECT_EQ(header.PartitionCount, 3);
      EXPECT_EQ(header.SectorArea[1], 0xCD);
      EXPECT_EQ(header.Opaque7312, tail == 0 ? 0 : 0x5A);
      EXPECT_EQ(uint32_t{header.Opaque7313}, tail == 0 ? 0U : 0x12345678U);
      EXPECT_EQ(image.Partition(0)->GetPartitionType(), CapsuleDirectoryEntry::DirTypeFat16);
      EXPECT_EQ(image.Partition(2)->GetPartitionType(), CapsuleDirectoryEntry::DirTypeFat32);
      CheckFat(image, image.Partition(0)->GetFileBlocks(), FatItems(1), 0);
      CheckFolder(image, image.Partition(1)->GetFileBlocks(), Tree(), NtfsVolume::kRoot);
      CheckFat(image, image.Partition(2)->GetFileBlocks(), FatItems(9), 0);
    }
  }
}

Bytes TreeImage() {
  test::ForeignImage foreign({});
  PutNtfsSection(foreign, Tree(), {});
  return foreign.Finish();
}

// The block with this name, anywhere below.
CapsuleFileBlock* Find(CpsList& list, const std::u16string& name) {
  CapsuleFileBlock* found = nullptr;
  test::ForEachBlock(list, [&](CapsuleFileBlock& block) {
    if (block.GetDirectoryEntry().NtfsFullName() == name) found = &block;
  });
  return found;
}

TEST(OpenNtfsTest, RangesInAnyOrder) {
  const test::TempDir dir;
  test::WriteFile(dir / "image", Text(TreeImage()));
  std::mt19937 random(20013);
  for (const char16_t* name : {u"fragmented.bin", u"a long file name.text", u"thirteen.char"}) {
    for (const bool readFirst : {false, true}) {
      OpenImage image(dir / "image");
      ASSERT_EQ(image.Read(), 0);
      CapsuleFileBlock* block = Find(image.Partition(0)->GetFileBlocks(), name);
      ASSERT_NE(block, nullptr);
      const std::string whole = test::ExtractAll(image.File(), *block);
      if (readFirst) {
        EXPECT_TRUE(block->ReadNTFSDataBlocks(&image.File(), block));
      }
      for (int round = 0; round < 60; ++round) {
        const size_t start = random() % whole.size();
        const size_t length = 1 + random() % 40000;
        EXPECT_EQ(
            test::Extract(image.File(), *block, static_cast<int>(start), static_cast<int>(length)),
            whole.substr(start, length));
      }
    }
  }
}

// Damage to one file's data or FILE record is that file's alone.
TEST(OpenNtfsTest, DamagedDataFailsItsOwnFile) {
  const test::TempDir dir;
  test::WriteFile(dir / "image", Text(TreeImage()));
  int dataStart = 0;
  std::string intact;
  {
    OpenImage image(dir / "image");
    ASSERT_EQ(image.Read(), 0);
    CapsuleFileBlock* block = Find(image.Partition(0)->GetFileBlocks(), u"thirteen.char");
    dataStart = block->GetNTFSDataBlockStart();
    intact =
        test::ExtractAll(image.File(), *Find(image.Partition(0)->GetFileBlocks(), u"after.txt"));
  }
  ASSERT_EQ(intact.size(), 123U);
  const std::string noData(1, '\x6D');
  const std::string noOffset("\x80\x00", 2);  // a match that begins nowhere
  for (const auto& [at, damage] : {std::pair(2, noData), std::pair(46, noOffset)}) {
    std::string bytes = test::ReadFile(dir / "image");
    bytes.replace(static_cast<size_t>(dataStart + at), damage.size(), damage);
    test::WriteFile(dir / "damaged", bytes);
    OpenImage image(dir / "damaged");
    ASSERT_EQ(image.Read(), 0);
    CpsList& list = image.Partition(0)->GetFileBlocks();
    EXPECT_EQ(test::ExtractAll(image.File(), *Find(list, u"thirteen.char")), "failed") << at;
    EXPECT_EQ(test::ExtractAll(image.File(), *Find(list, u"after.txt")), intact);
  }
}

TEST(OpenNtfsTest, AFolderWhoseRecordsDoNotDecodeFails) {
  const test::TempDir dir;
  Bytes bytes = TreeImage();
  const size_t first = 7560 + 2056;
  ASSERT_EQ(bytes[first + 2], 102);
  bytes[first + 46] = 0xFF;  // a match before anything was decoded
  test::WriteFile(dir / "image", Text(bytes));
  EXPECT_EQ(OpenImage(dir / "image").Read(), -1);
}

// An index that names the same folder again and again: what its entries take together would be more
// than the image holds.
TEST(OpenNtfsTest, NoRecordIsTakenByManyEntries) {
  const test::TempDir dir;
  test::ForeignImage foreign({});
  foreign.BeginSection(7, 3);
  const uint32_t folder = foreign.Offset();
  const Bytes record = test::NtfsRecord().Name(3, u"x").IndexRoot({{40, 5}, {41, 5}}).Finish();
  PutNtfsRecord(foreign, 102, false, 0, record);
  PutNtfsRecord(foreign, 106, true, 0, Bytes(16384));
  PutNtfsRecord(foreign, 108, false, 0, {});
  foreign.EndSection();
  for (int i = 0; i < 50000; ++i) foreign.Index(2, folder, 1);
  foreign.Index(2, foreign.Offset() - 40, 40);
  test::WriteFile(dir / "image", Text(foreign.Finish()));
  EXPECT_EQ(OpenImage(dir / "image").Read(), -1);
}

}  // namespace
}  // namespace capsule
