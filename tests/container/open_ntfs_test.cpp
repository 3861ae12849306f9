// Images with NTFS sections: a sample of another writer, and images made from real volumes.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <stdexcept>
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

std::string Text(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

// The image of `bytes` after ReadImage, which ends with `result`.
std::unique_ptr<OpenImage> Open(const Bytes& bytes, int result = 0) {
  const test::TempDir dir;
  test::WriteFile(dir / "image", Text(bytes));
  auto image = std::make_unique<OpenImage>(dir / "image");
  if (image->Read() != result) throw std::runtime_error("ReadImage ended otherwise");
  return image;
}

void CheckSample(OpenImage& image, CpsList& list, const Json& expected) {
  ASSERT_EQ(static_cast<size_t>(list.GetCount()), expected.size());
  int i = 0;
  for (const Json& item : expected) {
    SCOPED_TRACE(item.at("start").get<int>());
    CapsuleFileBlock& block = *BlockAt(list, i++);
    const _ShortDirEntry& entry = block.GetDirectoryPointer()->OtherEntry;
    EXPECT_EQ(block.GetDirectoryEntry().ShortName(), item.at("short").get<std::string>());
    const std::pair<const char*, int64_t> fields[] = {{"attr", entry.Attribute},
                                                      {"ctime", entry.CreationTime},
                                                      {"cdate", entry.CreationDate},
                                                      {"adate", entry.LastAccessDate},
                                                      {"wtime", entry.WriteTime},
                                                      {"wdate", entry.WriteDate},
                                                      {"size", entry.FileSize},
                                                      {"start", block.GetFileBlockStartOffset()},
                                                      {"dataStart", block.GetNTFSDataBlockStart()}};
    for (const auto& [key, value] : fields) {
      const bool mayBeMissing = key == std::string("size") || key == std::string("dataStart");
      if (mayBeMissing && !item.contains(key)) continue;
      EXPECT_EQ(value, item.at(key)) << key;
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

int CheckFolder(OpenImage& image, int partition, const NtfsVolume& volume) {
  return CheckFolder(image, image.Partition(partition)->GetFileBlocks(), volume, NtfsVolume::kRoot);
}

TEST(OpenNtfsTest, RealVolumesInBothRecordLayouts) {
  const NtfsVolume flat(test::UnpackVolume("vol_flat.ntfs"));
  for (const bool compressed : {true, false}) {
    for (const bool earlier : {true, false}) {
      test::ForeignImage foreign({.compressed = compressed});
      PutNtfsSection(foreign, Tree(), {.earlierLayout = earlier});
      PutNtfsSection(foreign, flat, {.earlierLayout = earlier});
      const auto image = Open(foreign.Finish());
      EXPECT_EQ(CheckFolder(*image, 0, Tree()), 131);
      EXPECT_EQ(CheckFolder(*image, 1, flat), 101);
    }
  }
}

TEST(OpenNtfsTest, ScrambledCompactImageOfThreePartitions) {
  const Bytes content(20000, 'x');
  const std::vector<test::ForeignItem> files = {{.shortName = "FILE    TXT", .content = content}};
  for (const std::string& key : {std::string("a key"), std::string(), std::string(40, 'k')}) {
    for (const uint16_t tail : {uint16_t{800}, uint16_t{0}, uint16_t{5300}}) {
      SCOPED_TRACE(key + ", " + std::to_string(tail));
      test::ForeignImage foreign({.tailOffset = tail, .scrambled = true, .key = key});
      foreign.IndexMark(1);
      PutFatSection(foreign, files, {.systemId = 6, .chunkSize = 16384, .notes = true});
      PutNtfsSection(foreign, Tree(), {.earlierLayout = true});
      PutFatSection(foreign, files, {.systemId = 12});

      const auto image = Open(foreign.Finish());
      ASSERT_EQ(image->File().GetPartitions().GetCount(), 3);
      EXPECT_EQ(image->File().IsCompressed(), 1);
      const _NewImageHeader& header = *image->File().GetImageFileHeader();
      EXPECT_EQ(header.PartitionCount, 3);
      EXPECT_EQ(header.SectorArea[1], 0xCD);
      EXPECT_EQ(header.Opaque7312, tail == 0 ? 0 : 0x5A);
      EXPECT_EQ(uint32_t{header.Opaque7313}, tail == 0 ? 0U : 0x12345678U);
      for (const int fat : {0, 2}) {
        CapsuleFileBlock* file = BlockAt(image->Partition(fat)->GetFileBlocks(), 0);
        EXPECT_EQ(test::ExtractAll(image->File(), *file), Text(content));
      }
      CheckFolder(*image, 1, Tree());
    }
  }
}

Bytes TreeImage() {
  test::ForeignImage foreign({});
  PutNtfsSection(foreign, Tree(), {});
  return foreign.Finish();
}

// The block with this name, anywhere in the image's partition.
CapsuleFileBlock& Find(OpenImage& image, const std::u16string& name) {
  CapsuleFileBlock* found = nullptr;
  test::ForEachBlock(image.Partition(0)->GetFileBlocks(), [&](CapsuleFileBlock& block) {
    if (block.GetDirectoryEntry().NtfsFullName() == name) found = &block;
  });
  if (found == nullptr) throw std::runtime_error("no such block");
  return *found;
}

TEST(OpenNtfsTest, RangesInAnyOrder) {
  std::mt19937 random(20013);
  for (const char16_t* name : {u"fragmented.bin", u"a long file name.text", u"thirteen.char"}) {
    for (const bool readFirst : {false, true}) {
      const auto image = Open(TreeImage());
      CapsuleFileBlock& block = Find(*image, name);
      const std::string whole = test::ExtractAll(image->File(), block);
      if (readFirst) {
        EXPECT_TRUE(block.ReadNTFSDataBlocks(&image->File(), &block));
      }
      for (int round = 0; round < 60; ++round) {
        const size_t start = random() % whole.size();
        const auto length = static_cast<int>(1 + random() % 40000);
        EXPECT_EQ(test::Extract(image->File(), block, static_cast<int>(start), length),
                  whole.substr(start, static_cast<size_t>(length)));
      }
    }
  }
}

// Damage to one file's data or FILE record is that file's alone.
TEST(OpenNtfsTest, DamagedDataFailsItsOwnFile) {
  const Bytes sound = TreeImage();
  const auto image = Open(sound);
  const int dataStart = Find(*image, u"thirteen.char").GetNTFSDataBlockStart();
  const std::string intact = test::ExtractAll(image->File(), Find(*image, u"after.txt"));
  ASSERT_EQ(intact.size(), 123U);
  const Bytes noData = {0x6D};
  const Bytes noOffset = {0x80, 0x00};  // a match that begins nowhere
  for (const auto& [at, damage] : {std::pair(2, noData), std::pair(46, noOffset)}) {
    Bytes bytes = sound;
    std::copy(damage.begin(), damage.end(), bytes.begin() + dataStart + at);
    const auto damaged = Open(bytes);
    EXPECT_EQ(test::ExtractAll(damaged->File(), Find(*damaged, u"thirteen.char")), "failed") << at;
    EXPECT_EQ(test::ExtractAll(damaged->File(), Find(*damaged, u"after.txt")), intact);
  }
}

TEST(OpenNtfsTest, AFolderWhoseRecordsDoNotDecodeFails) {
  Bytes bytes = TreeImage();
  const size_t first = 7560 + 2056;
  ASSERT_EQ(bytes[first + 2], 102);
  bytes[first + 46] = 0xFF;  // a match before anything was decoded
  Open(bytes, -1);
}

// An index that names the same folder again and again: what its entries take together would be more
// than the image holds.
TEST(OpenNtfsTest, NoRecordIsTakenByManyEntries) {
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
  Open(foreign.Finish(), -1);
}

}  // namespace
}  // namespace capsule
