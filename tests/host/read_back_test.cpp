// What the builder makes, read by the classes as they stand.
#include <gtest/gtest.h>

#include <random>
#include <set>

#include "capsule/container/header_format.h"
#include "capsule/container/index_format.h"
#include "capsule/host/image.h"
#include "capsule/host/image_builder.h"
#include "capsule/partition/record_format.h"
#include "tests/host/sections/scanned_tree.h"
#include "tests/support/fat_section.h"
#include "tests/support/ntfs_section.h"
#include "tests/support/open_image.h"
#include "tests/support/sample_images.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

namespace fs = std::filesystem;

const fs::path kSources = fs::path(CAPSULE_TEST_DATA) / "../../capsule";

std::string NameOf(CapsuleFileBlock& block) {
  const auto* units =
      static_cast<const unsigned char*>(static_cast<void*>(block.GetLongFileName()));
  const auto size = static_cast<size_t>(block.GetLongFileNameLength());
  if (size != 0) return LongNameToBytes({units, size});
  return ShortNameToBytes(block.GetDirectoryEntry().EntryInUse());
}

void AddBlocks(CapsuleFile& image, CpsList& blocks, const std::string& above, test::Tree* tree) {
  for (int i = 0; CapsuleFileBlock* block = test::BlockAt(blocks, i); ++i) {
    const std::string name = NameOf(*block);
    const bool isFolder = block->GetDirectoryEntry().IsDirectory() != 0;
    if (isFolder && (name == "." || name == "..")) continue;
    (*tree)[above + name] = isFolder ? "<dir>" : test::ExtractAll(image, *block);
    if (isFolder) AddBlocks(image, block->FileList(), above + name + "/", tree);
  }
}

class ReadBack : public testing::TestWithParam<int> {};

TEST_P(ReadBack, TheClassesReadWhatTheBuilderMakes) {
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  test::Tree expected;
  ImageBuilder builder(path, {.level = GetParam()});
  int number = 0;
  for (const fs::path& source : {kSources, kSources / "host", kSources / "blocks"}) {
    builder.AddDirectory(source);
    test::AddFolder(number++, source, &expected);
  }
  static_cast<void>(builder.Finish());

  test::OpenImage image(path);
  ASSERT_EQ(image.Read(), 0);
  test::Tree found;
  for (int i = 0; CapsulePartition* partition = image.Partition(i); ++i) {
    AddBlocks(image.File(), partition->GetFileBlocks(), std::to_string(i) + ":", &found);
  }
  EXPECT_EQ(found, expected);
}
INSTANTIATE_TEST_SUITE_P(Levels, ReadBack, testing::Values(0, 1, 5, 9));

// Paths and places of all entries, one a line, sorted.
using Places = std::set<std::string>;

std::string Place(const std::string& path, bool isFolder, uint32_t size, uint32_t offset) {
  return path + (isFolder ? "/" : " " + std::to_string(size)) + " @" + std::to_string(offset);
}

void AddPlaces(CpsList& blocks, const std::string& above, bool ofNtfs, Places* places) {
  for (int i = 0; CapsuleFileBlock* block = test::BlockAt(blocks, i); ++i) {
    const CapsuleDirectoryEntry& entry = block->GetDirectoryEntry();
    const bool isFolder = (ofNtfs ? entry.NTFSIsDirectory() : entry.IsDirectory()) != 0;
    // Of NTFS entries the classes keep all names, one behind the other, and the full one apart.
    const std::string path =
        above + '/' + (ofNtfs ? Utf16ToUtf8(entry.NtfsFullName()) : NameOf(*block));
    const bool isLong = ofNtfs || block->GetLongFileNameLength() != 0;
    if (isFolder && !isLong && RoleOf(entry.EntryInUse()) == EntryRole::Dot) continue;
    places->insert(Place(path, isFolder, entry.FileSize(),
                         static_cast<uint32_t>(block->GetFileBlockStartOffset())));
    if (isFolder) AddPlaces(block->FileList(), path, ofNtfs, places);
  }
}

void AddPlaces(const EntryRange& entries, Places* places) {
  for (const Entry& entry : entries) {
    places->insert(Place(entry.Path(), entry.IsDirectory(), entry.Size(), entry.Offset()));
    AddPlaces(entry.Children(), places);
  }
}

// Whether the image opens without a problem, and the classes then have the same tree.
bool OpensAsTheClassesRead(const std::string& path) {
  Places found;
  try {
    const Image image(path);
    if (!image.Problems().empty() || image.Partitions() == 0) return false;
    for (int n = 0; n < image.Partitions(); ++n) AddPlaces(image.Root(n).Children(), &found);
  } catch (const Error&) {
    return false;
  }
  test::OpenImage classes(path);
  EXPECT_EQ(classes.Read(), 0);
  Places expected;
  for (int n = 0; CapsulePartition* partition = classes.Partition(n); ++n) {
    const bool ofNtfs = partition->GetPartitionType() == CapsuleDirectoryEntry::DirTypeNtfs;
    AddPlaces(partition->GetFileBlocks(), std::to_string(n) + ":", ofNtfs, &expected);
  }
  EXPECT_EQ(found, expected);
  return true;
}

// A folder of FAT-style records between two volumes.
std::string MixedImage(bool compressed) {
  test::ForeignImage image({.compressed = compressed});
  PutNtfsSection(image, test::NtfsVolume(test::UnpackVolume("vol_tree.ntfs")), {});
  test::ForeignItem folder{.shortName = "FOLDER     ", .directory = true};
  folder.children = {{.shortName = "A       TXT", .content = {'a'}},
                     {.shortName = "B          ", .directory = true}};
  PutFatSection(image, {folder, {.shortName = "C          "}}, {.systemId = 12});
  PutNtfsSection(image, test::NtfsVolume(test::UnpackVolume("vol_flat.ntfs")),
                 {.earlierLayout = true});
  const test::Bytes bytes = image.Finish();
  return {bytes.begin(), bytes.end()};
}

// The image with records of its index, which has no check value then, in another order.
std::string WithOtherOrder(std::string image, std::mt19937& random) {
  const auto at = [&](size_t place) { return static_cast<unsigned char>(image[place]); };
  size_t place = 0;
  for (size_t i = 4; i-- > 0;) place = place << 8 | at(kIndexOffsetOffset + i);
  image[place] = '?';
  std::vector<std::string> records;
  for (place += kIndexPreamble; place < image.size() && HasIndexBody(at(place));) {
    const size_t size = 11 + at(place + 1) + size_t{256} * at(place + 2);
    records.push_back(image.substr(place, size));
    place += size;
  }
  if (records.size() < 3 || place > image.size()) return image;
  for (size_t i = 0; i <= random() % 3; ++i) {  // the last ends the index
    std::swap(records[random() % (records.size() - 1)], records[random() % (records.size() - 1)]);
  }
  std::string rest = image.substr(place);
  for (; !records.empty(); records.pop_back()) rest.insert(0, records.back());
  return image.substr(0, image.size() - rest.size()) + rest;
}

// Images as they are, with a byte changed here and there, and with indexes in another order.
TEST(ReadBackTest, WhatOpensIsTheTreeOfTheClasses) {
  constexpr int kChanges = 60;
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  int whole = 0;
  int changed = 0;
  int reordered = 0;
  std::vector<std::string> images = {MixedImage(false), MixedImage(true)};
  for (const auto& file : fs::recursive_directory_iterator(CAPSULE_TEST_DATA "/images")) {
    if (file.path().extension() == ".img") images.push_back(test::ReadFile(file.path()));
  }
  std::mt19937 random(1);
  for (const std::string& bytes : images) {
    test::WriteFile(path, bytes);
    if (!OpensAsTheClassesRead(path)) continue;
    ++whole;
    for (int i = 0; i < kChanges; ++i) {
      std::string other = bytes;
      other[random() % bytes.size()] ^= static_cast<char>(1 << random() % 8);
      test::WriteFile(path, other);
      if (OpensAsTheClassesRead(path)) ++changed;
      if (i % 4 != 0) continue;
      test::WriteFile(path, WithOtherOrder(bytes, random));
      if (OpensAsTheClassesRead(path)) ++reordered;
      ASSERT_FALSE(testing::Test::HasFailure()) << whole << ' ' << i;
    }
  }
  EXPECT_GE(whole, 10);
  EXPECT_GE(changed, 100);
  EXPECT_GE(reordered, 20);
}

}  // namespace
}  // namespace capsule::host
