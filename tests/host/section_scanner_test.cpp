#include "capsule/host/section_scanner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "capsule/container/index_format.h"
#include "capsule/host/error.h"
#include "capsule/host/image_map.h"
#include "capsule/platform/file.h"
#include "capsule/platform/little_endian.h"
#include "tests/host/small_image.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

std::vector<SectionItem> Scan(const std::string& path) {
  const int descriptor = platform::OpenForReading(path.c_str());
  EXPECT_GT(descriptor, 0) << path;
  const std::unique_ptr<const int, void (*)(const int*)> closer(
      &descriptor, [](const int* d) { platform::Close(*d); });
  SectionScanner scanner(descriptor, "x.cap");
  std::vector<SectionItem> items;
  for (SectionItem item; scanner.Next(&item);) items.push_back(item);
  return items;
}

std::string ScanError(const std::string& bytes) {
  const test::TempDir folder;
  test::WriteFile(folder / "x.cap", bytes);
  try {
    Scan(folder / "x.cap");
  } catch (const Error& error) {
    return error.what();
  }
  return "";
}

// What the index that another writer gave an image names.
std::vector<uint64_t> IndexedItems(const std::string& image) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(image.data());  // NOLINT
  const uint32_t start = platform::LoadLe32(bytes + kIndexOffsetOffset);
  platform::ByteReader reader(std::span(bytes, image.size()).subspan(start + kIndexPreamble));
  std::vector<uint64_t> items;
  while (reader.Remaining() > 0) items.push_back(TakeIndexRecord(reader).offset);
  return items;
}

class Samples : public testing::TestWithParam<const char*> {};

TEST_P(Samples, ScanFindsWhatTheIndexNames) {
  const std::string path = std::string(CAPSULE_TEST_DATA "/images/") + GetParam();
  std::vector<uint64_t> found;
  for (const SectionItem& item : Scan(path)) {
    const bool trailer = item.kind == Kind::Trailer;
    found.push_back(trailer ? item.offset + item.length - kDirRecordSize : item.offset);
  }
  EXPECT_EQ(found, IndexedItems(test::ReadFile(path)));
}
INSTANTIATE_TEST_SUITE_P(All, Samples,
                         testing::Values("w_three_open.img", "w_names.img", "w_files_only.img",
                                         "f_16384_lzs.img"));

TEST(SectionScanner, KnowsFoldersAndLongNames) {
  std::vector<std::string> paths;
  for (const SectionItem& item : Scan(CAPSULE_TEST_DATA "/images/w_names.img")) {
    if (item.kind == Kind::File) paths.push_back(item.path);
  }
  const auto has = [&](const std::string& path) {
    return std::count(paths.begin(), paths.end(), path) == 1;
  };
  EXPECT_TRUE(has("NAMES/ABCDEFG2.TXT"));
  EXPECT_TRUE(has("NAMES/abcdefghijklmnopqrstu6.txt"));
  EXPECT_TRUE(has("DEEP/L0/level 01 of the tree/L2/F3.TXT"));
  EXPECT_TRUE(has("DEEP/F0.TXT"));
  EXPECT_TRUE(has("caf\xe9 \xdc/\xe9t\xe9 d'hiver.txt"));
  EXPECT_TRUE(has("directory.ext/two.dots.txt"));
}

TEST(SectionScanner, SurplusZeroEntriesAndDotsChangeNoLevel) {
  test::SmallImage image;
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
  const test::TempDir folder;
  test::WriteFile(folder / "x.cap", image.Bytes());

  std::string walk;
  for (const SectionItem& item : Scan(folder / "x.cap")) {
    walk += "S/.0FT"[static_cast<int>(item.kind)] + item.path + " ";
  }
  EXPECT_EQ(walk, "S 0 0 0 /A . . FA/F.TXT 0 0 FG.TXT T ");
}

// Nested folders make long paths; spelling them all out would take gigabytes.
TEST(SectionScanner, DeepTreesCostLinearTime) {
  constexpr int kDepth = 100'000;
  test::SmallImage image;
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
  test::SmallImage image;
  image.BeginSection();
  const uint32_t file = image.Size();
  image.Entry("G       TXT", 0x20, 10000);
  const uint32_t data = image.Size();
  image.Data(8192, false);
  const uint32_t second = image.Size();
  image.Data(2048, true);
  const uint32_t trailer = image.Size();
  image.EndSection();
  const std::string good = image.Bytes();
  EXPECT_EQ(ScanError(good), "");

  const auto with = [&](uint32_t offset, char value) {
    std::string bytes = good;
    bytes[offset] = value;
    return ScanError(bytes);
  };
  EXPECT_EQ(with(file, 3),
            "x.cap: record at 0x2590: type is 3 where a directory record is expected");
  EXPECT_EQ(with(file + 6, 33), "x.cap: directory record at 0x2590: payload is 33 bytes, not 32");
  EXPECT_EQ(with(file + 8, 0),
            "x.cap: record at 0x25b8: type is 3 where a directory record is expected");
  EXPECT_EQ(with(data + 1, 1),
            "x.cap: record at 0x45c0: type is 3 where a directory record is expected");
  EXPECT_EQ(with(second + 1, 0),
            "x.cap: record at 0x4dc8: type is 23 before the last data block of 'G.TXT'");
  EXPECT_EQ(with(second + 7, 0x7F),
            "x.cap: data block at 0x45c0: payload is 32512 bytes, 3592 remain");
  EXPECT_EQ(with(trailer + kPartitionTrailerSize - 1, 1),
            "x.cap: section trailer at 0x4dc8: its last 40 bytes are not zero");
  EXPECT_EQ(with(kPartitionRecordsOffset + 2, 7),
            "x.cap: record at 0x2590: no record of an NTFS section");
  EXPECT_EQ(with(kPartitionCountOffset, 11).substr(0, 14), "x.cap: header:");
}

TEST(SectionScanner, EveryTruncationIsNoticed) {
  const std::string good = test::ReadFile(CAPSULE_TEST_DATA "/images/w_files_only.img");
  const size_t end = 19756;
  const test::TempDir folder;
  for (size_t length = 0; length < end; length += length < 9600 ? 997 : 97) {
    test::WriteFile(folder / "x.cap", good.substr(0, length));
    EXPECT_THROW(Scan(folder / "x.cap"), Error) << length;
  }
  test::WriteFile(folder / "x.cap", good.substr(0, end - 1));
  EXPECT_THROW(Scan(folder / "x.cap"), Error);
  test::WriteFile(folder / "x.cap", good.substr(0, end));
  EXPECT_NO_THROW(Scan(folder / "x.cap"));
}

}  // namespace
}  // namespace capsule::host
