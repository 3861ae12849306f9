// What the builder makes, read by the classes as they stand.
#include <gtest/gtest.h>

#include "capsule/blocks/file_block.h"
#include "capsule/container/capsule_file.h"
#include "capsule/host/image_builder.h"
#include "capsule/partition/partition.h"
#include "capsule/partition/record_format.h"
#include "tests/host/scanned_tree.h"
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

std::string ContentOf(CapsuleFile& image, CapsuleFileBlock& block) {
  int length = static_cast<int>(block.GetDirectoryEntry().FileSize());
  if (length == 0) return "";
  if (block.DecompressFile(&image, 0, &length) != 0 || length < 0) return "<failed>";
  std::string content(static_cast<const char*>(block.GetPtrToDecompressedFile()),
                      static_cast<size_t>(length));
  block.ClearDecompressedFilePointer();
  return content;
}

void AddBlocks(CapsuleFile& image, CpsList& blocks, const std::string& above, test::Tree* tree) {
  for (int i = 0; i < blocks.GetCount(); ++i) {
    auto& block = *static_cast<CapsuleFileBlock*>(blocks.GetAt(i));
    const bool isFolder = block.GetDirectoryEntry().IsDirectory() != 0;
    const std::string name = NameOf(block);
    if (isFolder && (name == "." || name == "..")) continue;
    (*tree)[above + name] = isFolder ? "<dir>" : ContentOf(image, block);
    if (isFolder) AddBlocks(image, block.FileList(), above + name + "/", tree);
  }
}

class ReadBack : public testing::TestWithParam<int> {};

TEST_P(ReadBack, TheClassesReadWhatTheBuilderMakes) {
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  const std::vector<fs::path> sources = {kSources, kSources / "host", kSources / "blocks"};
  test::Tree expected;
  ImageBuilder builder(path, {.level = GetParam()});
  for (int i = 0; i < 3; ++i) {
    const fs::path& source = sources[static_cast<size_t>(i)];
    builder.AddDirectory(source);
    test::AddFolder(i, source, &expected);
  }
  builder.Finish();

  CapsuleFile image(path.c_str());
  ASSERT_EQ(image.ReadImage(0), 0);
  ASSERT_EQ(image.GetPartitions().GetCount(), 3);
  test::Tree found;
  for (int i = 0; i < 3; ++i) {
    auto& partition = *static_cast<CapsulePartition*>(image.GetPartitions().GetAt(i));
    AddBlocks(image, partition.GetFileBlocks(), std::to_string(i) + ":", &found);
  }
  EXPECT_EQ(found, expected);
  EXPECT_TRUE(image.CloseImageFileHandle());
}
INSTANTIATE_TEST_SUITE_P(Levels, ReadBack, testing::Values(0, 1, 5, 9));

}  // namespace
}  // namespace capsule::host
