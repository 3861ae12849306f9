#include "capsule/host/sections/section_scanner.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "capsule/container/index_format.h"
#include "capsule/host/image_map.h"
#include "capsule/platform/scoped_descriptor.h"
#include "tests/host/small_image.h"
#include "tests/support/bytes.h"
#include "tests/support/entries.h"
#include "tests/support/sample_images.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

std::vector<SectionItem> Scan(const std::string& path) {
  const platform::ScopedDescriptor descriptor(platform::OpenForReading(path.c_str()));
  EXPECT_TRUE(descriptor) << path;
  SectionScanner scanner(ImageFile(descriptor.Get(), "x.cap"));
  std::vector<SectionItem> items;
  for (SectionItem item; scanner.Next(&item);) items.push_back(item);
  return items;
}

std::vector<SectionItem> ScanBytes(const std::string& bytes) {
  const test::TempDir folder;
  test::WriteFile(folder / "x.cap", bytes);
  return Scan(folder / "x.cap");
}

std::string ScanError(const std::string& bytes) {
  return test::ErrorOf([&] { ScanBytes(bytes); });
}

// What the index that another writer gave an image names.
std::vector<uint64_t> IndexedItems(const std::string& image) {
  platform::ByteReader reader(std::span(test::Unsigned(image), image.size()));
  reader.Skip(test::U32At(image, kIndexOffsetOffset) + kIndexPreamble);
  std::vector<uint64_t> items;
  while (reader.Remaining() > 0) items.push_back(TakeIndexRecord(reader).offset);
  return items;
}

TEST(SectionScanner, FindsWhatTheIndexNames) {
  for (const char* sample :
       {"w_three_open.img", "w_names.img", "w_files_only.img", "f_16384_lzs.img"}) {
    std::vector<uint64_t> found;
    for (const SectionItem& item : Scan(test::SamplePath(sample))) {
      const bool trailer = item.kind == Kind::Trailer;
      found.push_back(trailer ? item.offset + item.length - kDirRecordSize : item.offset);
    }
    EXPECT_EQ(found, IndexedItems(test::ReadFile(test::SamplePath(sample)))) << sample;
  }
}

TEST(SectionScanner, KnowsFoldersAndLongNames) {
  std::vector<std::string> paths;
  for (const SectionItem& item : Scan(test::SamplePath("w_names.img"))) {
    if (item.kind == Kind::File) paths.push_back(item.path);
  }
  for (const char* path : {"NAMES/ABCDEFG2.TXT", "NAMES/abcdefghijklmnopqrstu6.txt", "DEEP/F0.TXT",
                           "DEEP/L0/level 01 of the tree/L2/F3.TXT",
                           "caf\xe9 \xdc/\xe9t\xe9 d'hiver.txt", "directory.ext/two.dots.txt"}) {
    EXPECT_EQ(std::count(paths.begin(), paths.end(), path), 1) << path;
  }
}

TEST(SectionScanner, SurplusZeroEntriesAndDotsChangeNoLevel) {
  test::ImageMaker image;
  image.BeginSection();
  image.Close(3);
  image.Folder("A          ");
  image.Entry("F       TXT", 0x20);
  image.Close(2);
  image.Entry("G       TXT", 0x20, 10000);
  image.Data(8192, false);
  image.Data(2048, true);
  image.EndSection();
  image.Bytes() += "bytes of an older, longer image";
  std::string walk;
  for (const SectionItem& item : ScanBytes(image.Bytes())) {
    walk += "S/.0FT"[static_cast<int>(item.kind)] + item.path + " ";
  }
  EXPECT_EQ(walk, "S 0 0 0 /A . . FA/F.TXT 0 0 FG.TXT T ");
}

// Nested folders make long paths; spelling them all out would take gigabytes.
TEST(SectionScanner, DeepTreesCostLinearTime) {
  constexpr int kDepth = 100'000;
  test::ImageMaker image;
  image.BeginSection();
  for (int i = 0; i < kDepth; ++i) image.Entry("D          ", kDirectoryAttribute);
  image.Entry("F          ", 0x20);
  image.Close(kDepth);
  image.Entry("G          ", 0x20);
  image.EndSection();
  const test::TempDir folder;
  test::WriteFile(folder / "x.cap", image.Bytes());
  const std::vector<SectionItem> items = Scan(folder / "x.cap");
  ASSERT_EQ(items.size(), 2u * kDepth + 4);
  EXPECT_EQ(items[2].path, "D/D");
  EXPECT_EQ(items[kDepth + 1].name, "F");
  EXPECT_EQ(items[kDepth + 1].path, "");
  EXPECT_EQ(items[items.size() - 2].path, "G");
  size_t longest = 0;
  MapImage(folder / "x.cap", [&](const MapItem& item) {
    longest = std::max(longest, item.text.size() + item.path.size() + item.problem.size());
  });
  EXPECT_LT(longest, 3 * kMaxScannedPath);
}

TEST(SectionScanner, NamesTheDamage) {
  test::ImageMaker image;
  image.BeginSection();
  const uint32_t file = image.Here();
  image.Entry("G       TXT", 0x20, 10000);
  const uint32_t data = image.Here();
  image.Data(8192, false);
  const uint32_t second = image.Here();
  image.Data(2048, true);
  const uint32_t trailer = image.Here();
  image.EndSection();
  const std::string good = image.Bytes();
  EXPECT_EQ(ScanError(good), "");

  const struct {
    uint32_t at;
    char value;
    const char* error;
  } cases[] = {
      {file, 3, "record at 0x2590: type is 3 where a directory record is expected"},
      {file + 6, 33, "directory record at 0x2590: payload is 33 bytes, not 32"},
      {file + 8, 0, "record at 0x25b8: type is 3 where a directory record is expected"},
      {data + 1, 1, "record at 0x45c0: type is 3 where a directory record is expected"},
      {second + 1, 0, "record at 0x4dc8: type is 23 before the last data block of 'G.TXT'"},
      {second + 7, 0x7F, "data block at 0x45c0: payload is 32512 bytes, 3592 remain"},
      {trailer + kPartitionTrailerSize - 1, 1,
       "section trailer at 0x4dc8: its last 40 bytes are not zero"},
      {kPartitionRecordsOffset + 2, 7, "record at 0x2590: no record of an NTFS section"},
      {kPartitionCountOffset, 11, "header:"},
  };
  for (const auto& [at, value, error] : cases) {
    std::string bytes = good;
    bytes[at] = value;
    EXPECT_EQ(ScanError(bytes).find(std::string("x.cap: ") + error), 0u) << ScanError(bytes);
  }
}

TEST(SectionScanner, EveryTruncationIsNoticed) {
  const std::string good = test::ReadFile(test::SamplePath("w_files_only.img"));
  constexpr size_t kEnd = 19756;
  for (size_t length = 0; length < kEnd; length += length < 9600 ? 997 : 97) {
    EXPECT_NE(ScanError(good.substr(0, length)), "") << length;
  }
  EXPECT_NE(ScanError(good.substr(0, kEnd - 1)), "");
  EXPECT_EQ(ScanError(good.substr(0, kEnd)), "");
}

}  // namespace
}  // namespace capsule::host
