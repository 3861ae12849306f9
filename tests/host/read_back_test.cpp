// What the builder makes, read by the classes as they stand.
#include <gtest/gtest.h>

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
  builder.Finish();

  test::OpenImage image(path);
  ASSERT_EQ(image.Read(), 0);
  test::Tree found;
  for (int i = 0; CapsulePartition* partition = image.Partition(i); ++i) {
    AddBlocks(image.File(), partition->GetFileBlocks(), std::to_string(i) + ":", &found);
  }
  EXPECT_EQ(found, expected);
}
INSTANTIATE_TEST_SUITE_P(Levels, ReadBack, testing::Values(0, 1, 5, 9));

}  // namespace
}  // namespace capsule::host
