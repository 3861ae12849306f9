// What the builder makes, read by the classes as they stand.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "capsule/host/image.h"
#include "capsule/host/image_builder.h"
#include "capsule/partition/record_format.h"
#include "tests/host/sections/scanned_tree.h"
#include "tests/support/open_image.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

namespace fs = std::filesystem;

const fs::path kSources = fs::path(CAPSULE_TEST_DATA) / "../../capsule";

std::string NameOf(CapsuleFileBlock& block) {
  const auto* units =
      static_cast<const unsigned char*>(static_cast<void*>(block.GetLongFileName()));
  const auto size = static_cast<size_t>(block.GetLongFileNameLength());
  if (size != 0) return LongNameToBytes(DecodeLongName({units, size}));
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

// Those of NTFS partitions have names that the classes keep otherwise.
void AddPlaces(CpsList& blocks, const std::string& above, Places* places) {
  for (int i = 0; CapsuleFileBlock* block = test::BlockAt(blocks, i); ++i) {
    const CapsuleDirectoryEntry& entry = block->GetDirectoryEntry();
    const bool isFolder = entry.IsDirectory() != 0;
    const std::string path = above + '/' + NameOf(*block);
    const bool isLong = block->GetLongFileNameLength() != 0;
    if (isFolder && !isLong && RoleOf(entry.EntryInUse()) == EntryRole::Dot) continue;
    places->insert(Place(path, isFolder, entry.FileSize(),
                         static_cast<uint32_t>(block->GetFileBlockStartOffset())));
    if (isFolder) AddPlaces(block->FileList(), path, places);
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
    const auto& partitions = image.Info().partitions;
    const bool hasNtfs = std::any_of(partitions.begin(), partitions.end(),
                                     [](const auto& p) { return p.systemId == kSystemIdNtfs; });
    if (hasNtfs || !image.Problems().empty() || partitions.empty()) return false;
    for (int n = 0; n < image.Partitions(); ++n) AddPlaces(image.Root(n).Children(), &found);
  } catch (const Error&) {
    return false;
  }
  test::OpenImage classes(path);
  EXPECT_EQ(classes.Read(), 0);
  Places expected;
  for (int n = 0; CapsulePartition* partition = classes.Partition(n); ++n) {
    AddPlaces(partition->GetFileBlocks(), std::to_string(n) + ":", &expected);
  }
  EXPECT_EQ(found, expected);
  return true;
}

// Samples as they are, and with a byte changed here and there.
TEST(ReadBackTest, WhatOpensIsTheTreeOfTheClasses) {
  constexpr int kChanges = 60;
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  int whole = 0;
  int changed = 0;
  std::set<fs::path> samples;
  for (const auto& file : fs::recursive_directory_iterator(CAPSULE_TEST_DATA "/images")) {
    if (file.path().extension() == ".img") samples.insert(file.path());
  }
  for (const fs::path& sample : samples) {
    std::mt19937 random(1);
    const std::string bytes = test::ReadFile(sample);
    test::WriteFile(path, bytes);
    if (!OpensAsTheClassesRead(path)) continue;
    ++whole;
    for (int i = 0; i < kChanges; ++i) {
      std::string other = bytes;
      other[random() % bytes.size()] ^= static_cast<char>(1 << random() % 8);
      test::WriteFile(path, other);
      if (OpensAsTheClassesRead(path)) ++changed;
      if (testing::Test::HasFailure()) FAIL() << sample;
    }
  }
  EXPECT_GE(whole, 5);
  EXPECT_GE(changed, 100);
}

}  // namespace
}  // namespace capsule::host
