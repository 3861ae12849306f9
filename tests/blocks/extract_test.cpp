#include <gtest/gtest.h>

#include <random>
#include <span>
#include <string>
#include <vector>

#include "capsule/blocks/data_block.h"
#include "capsule/compression/lzs.h"
#include "tests/blocks/made_image.h"
#include "tests/support/open_image.h"

namespace capsule {
namespace {

using test::Extract;
using test::MadeImage;
using test::RandomText;

void CompareRandomRanges(CapsuleFile& file, CapsuleFileBlock& block, const std::string& content) {
  std::mt19937 random(2);
  for (int turn = 0; turn < 300; ++turn) {
    const size_t start = random() % content.size();
    const size_t length = random() % (turn % 3 == 0 ? content.size() + 100 : 3000);
    ASSERT_EQ(Extract(file, block, static_cast<int>(start), static_cast<int>(length)),
              content.substr(start, length))
        << start << " " << length;
    if (turn % 50 == 0) block.ClearDecompressedFilePointer();
  }
}

TEST(ExtractTest, RangesInAnyOrderEqualAPlainModel) {
  const std::string content = RandomText(700'001, 1);
  for (const bool readFirst : {false, true}) {
    MadeImage compressed(700'001, content);
    MadeImage stored(false, 700'001, [&](auto& m) { m.Stored(content); });
    MadeImage storedInCompressed(true, 700'001, [&](auto& m) { m.Stored(content); });
    for (MadeImage* image : {&compressed, &stored, &storedInCompressed}) {
      CapsuleFile& file = image->File();
      CapsuleFileBlock& block = image->Block();
      ASSERT_TRUE(!readFirst ||
                  block.ReadDataBlocks(file.GetImageFileHandle(), block.GetDUPDATAOffset()));
      CompareRandomRanges(file, block, content);
      EXPECT_EQ(image->ChunkCount(), 86);
    }
  }
}

TEST(ExtractTest, GoingForwardEveryChunkIsDecodedOnceAndReleasedBehindTheRange) {
  const std::string content = RandomText(20000, 4);
  MadeImage image(20000, content);
  const auto held = [&](int i) { return image.Chunk(i).IsDecompressed(); };
  EXPECT_EQ(image.Range(0, 10000), content.substr(0, 10000));
  EXPECT_EQ(held(0) + held(1), 2);
  EXPECT_EQ(held(2), 0);
  const char* second = image.Chunk(1).GetPtrToUncompressedDataBuffer();
  EXPECT_EQ(image.Range(10000, 10000), content.substr(10000));
  EXPECT_EQ(held(0), 0);
  EXPECT_EQ(held(1) + held(2), 2);
  EXPECT_EQ(image.Chunk(1).GetPtrToUncompressedDataBuffer(), second);
}

TEST(ExtractTest, WhereARangeMayBegin) {
  MadeImage image(9000, RandomText(9000, 5));
  CapsuleFileBlock& block = image.Block();
  const auto decompress = [&](int start, int length) {
    const int result = block.DecompressFile(&image.File(), start, &length);
    return std::pair(result, length);
  };
  EXPECT_EQ(decompress(9000, 10), std::pair(-1, 10));
  EXPECT_EQ(decompress(-1, 10), std::pair(-1, 10));
  EXPECT_EQ(decompress(8999, 10), std::pair(0, 1));
  EXPECT_EQ(decompress(0, 0x7FFFFFFF), std::pair(0, 9000));
  EXPECT_EQ(decompress(100, -5), std::pair(0, 0));
  EXPECT_EQ(decompress(100, 0), std::pair(0, 0));
  EXPECT_EQ(block.DecompressFileBlocks(&image.File(), 0, 0x7FFFFFFF), -1);
  EXPECT_EQ(block.DecompressFileBlocks(&image.File(), -5, 1), -1);
}

TEST(ExtractTest, DirectoriesAndEmptyFilesHaveNoContents) {
  MadeImage image(true, [](auto& m) {
    m.File("EMPTY   BIN", 0);
    m.Directory("D          ");
  });
  int length = 10;
  for (const int i : {0, 1}) {
    EXPECT_EQ(image.Block(i).DecompressFile(&image.File(), 0, &length), -1);
  }
  EXPECT_EQ(length, -1);  // of the directory
  EXPECT_EQ(image.ChunkCount(), 0);
  EXPECT_TRUE(image.Block(1).ReadDataBlocks(image.File().GetImageFileHandle(), 0));
}

// A size that the records do not back costs nothing and is never extracted.
TEST(ExtractTest, RecordsThatRunOutFailTheExtraction) {
  const std::string content = RandomText(20000, 6);
  MadeImage claimed(0xFFFFFFFF, content);
  EXPECT_EQ(claimed.ChunkCount(), 3);
  EXPECT_EQ(claimed.Range(0, 0x7FFFFFFF), "failed");
  EXPECT_EQ(claimed.Range(20000, 20000), "failed");
  EXPECT_EQ(claimed.Range(100, 19000), content.substr(100, 19000));

  MadeImage withoutRecords(5000, "");
  EXPECT_EQ(withoutRecords.ChunkCount(), 0);
  EXPECT_EQ(withoutRecords.Range(0, 10), "failed");

  MadeImage moreRecords(8192, content);
  EXPECT_EQ(moreRecords.ChunkCount(), 1);
  EXPECT_EQ(moreRecords.Range(0, 20000), content.substr(0, 8192));
}

TEST(ExtractTest, NothingComesOutOfAnImageThatIsClosed) {
  MadeImage image(5000, RandomText(5000, 9));
  ASSERT_TRUE(image.File().CloseImageFileHandle());
  int length = 100;
  EXPECT_EQ(image.Block().DecompressFile(&image.File(), 0, &length), 0);
  EXPECT_EQ(length, -1);
}

TEST(ExtractTest, ABlockWithoutDataFailsTheRangesThatNeedIt) {
  const std::string content = RandomText(24576, 7);
  const std::vector<test::Unit> units = test::Units(content);
  const test::Unit outOfRange{70000, units[1].bytes};
  const test::Unit damaged{8192, std::string("\x80\0\0\0", 4)};  // 11-bit offset 0
  for (const test::Unit& second : {outOfRange, damaged}) {
    MadeImage image(true, 24576, [&](auto& m) {
      m.Data(0, 8192, units[0].bytes);
      m.Data(0, second.length, second.bytes);
      m.Data(1, 8192, units[2].bytes);
    });
    EXPECT_EQ(image.Range(0, 8191), content.substr(0, 8191));
    EXPECT_EQ(image.Range(8000, 1000), "failed");
    EXPECT_EQ(image.Block().GetPtrToDecompressedFile(), nullptr);
    EXPECT_EQ(image.Range(20000, 1000), "failed");
    EXPECT_EQ(image.Range(10, 8000), content.substr(10, 8000));
  }
}

TEST(ExtractTest, OneHistoryAFile) {
  const std::string contents[] = {RandomText(20000, 8), RandomText(20000, 9)};
  MadeImage image(true, [&](auto& m) {
    for (const std::string& content : contents) {
      m.File("F       BIN", 20000);
      test::AddCompressed(m, content);
    }
  });
  std::string pieces[2];
  for (int at = 0; at < 20000; at += 1000) {
    for (const int i : {0, 1}) pieces[i] += Extract(image.File(), image.Block(i), at, 1000);
  }
  EXPECT_EQ(pieces[0], contents[0]);
  EXPECT_EQ(pieces[1], contents[1]);
}

// A block reads one file after the other: neither what was decoded nor what could not be decoded of
// one has a part in the next.
TEST(ExtractTest, ABlockThatIsReadAgainBeginsAfresh) {
  const std::string first = RandomText(20000, 11);
  const std::string second = RandomText(20000, 12);
  const std::string forged = test::Hex("C5 66 00");  // five bytes from ten before the file
  MadeImage image(true, [&](auto& m) {
    for (const std::string& content : {first, second}) {
      m.File("F       BIN", 20000);
      test::AddCompressed(m, content);
    }
    m.File("DAMAGED BIN", 512);
    m.Data(1, 512, forged.substr(0, 1));  // no end
    m.File("FORGED  BIN", 5);
    m.Data(1, 5, forged);
  });
  const std::vector<std::string> expected = {first, second, test::Zeros(512), "failed"};
  CapsuleFileBlock& block = image.Block();
  std::vector<int> starts;
  for (int i = 0; i < 4; ++i) starts.push_back(image.Block(i).GetFileBlockStartOffset());
  for (const size_t before : {0U, 1U, 2U, 3U}) {
    for (const size_t after : {0U, 1U, 2U, 3U}) {
      for (const size_t i : {before, after}) {
        int end = starts[i];
        ASSERT_EQ(block.Read(CapsuleDirectoryEntry::DirTypeFat32, image.File().GetImageFileHandle(),
                             starts[i], &end, image.File(), nullptr),
                  0);
        EXPECT_TRUE(test::ExtractAll(image.File(), block) == expected[i]) << before << ' ' << after;
      }
    }
  }
}

// One data block for each 16384 bytes.
TEST(ExtractTest, DataBlocksOfNtfsFiles) {
  for (const auto& [size, blocks] : {std::pair(1U, 1), {16384U, 1}, {16385U, 2}, {32768U, 2}}) {
    const std::string content = RandomText(size, 14);
    MadeImage image(test::NtfsImage(content, false));
    EXPECT_EQ(image.ChunkCount(), blocks) << size;
    EXPECT_TRUE(test::ExtractAll(image.File(), image.Block()) == content) << size;
  }
}

// A block that has read one entry of an NTFS section and then another is as one that only read
// that.
TEST(ExtractTest, NothingOfAnNtfsEntryIsLeftInTheNext) {
  for (const bool reverse : {false, true}) {
    MadeImage image(test::NtfsImage(RandomText(20000, 15), false));
    CapsuleFileBlock& file = image.Block();
    CapsuleFileBlock& root = *file.ParentFileBlock();
    const int starts[] = {root.GetFileBlockStartOffset(), file.GetFileBlockStartOffset()};
    const auto read = [&](CapsuleFileBlock& block, bool ofFile) {
      std::vector<char> history(LzsSizeOfDecompressionHistory());
      LzsInitDecompressionHistory(history.data());
      int end = starts[ofFile ? 1 : 0];
      EXPECT_EQ(block.Read(CapsuleDirectoryEntry::DirTypeNtfs, image.File().GetImageFileHandle(),
                           starts[ofFile ? 1 : 0], &end, image.File(), history.data()),
                0);
      const CapsuleDirectoryEntry& entry = block.GetDirectoryEntry();
      const std::u16string& name = entry.NtfsFullName();
      return std::string(name.begin(), name.end()) + " " +
             std::string(block.GetDirectoryEntry().ShortName()) + " " +
             std::to_string(entry.FileSize()) + " " + std::to_string(entry.IsDirectory()) + " " +
             std::to_string(entry.NTFSIsDirectory()) + " " + std::to_string(entry.GetNumEntries());
    };
    CapsuleFileBlock once(nullptr, image.Partition());
    CapsuleFileBlock twice(nullptr, image.Partition());
    read(twice, reverse);
    EXPECT_EQ(read(twice, !reverse), read(once, !reverse));
  }
}

// Going back decodes from the nearest of the histories that were kept, not from the first record.
// The chunk that ends where a range begins counts as touched.
TEST(ExtractTest, GoingBackNeedsAtMost64RecordsBefore) {
  constexpr int kChunks = 200;
  const std::string content = RandomText(size_t{kChunks} * 8192, 13);
  for (const int kept : {64, 128, 192}) {
    MadeImage image(static_cast<uint32_t>(content.size()), content);
    const auto isRight = [&](int chunk) {
      const int start = chunk * 8192 + 1;
      return image.Range(start, 8000) == content.substr(static_cast<size_t>(start), 8000);
    };
    EXPECT_TRUE(isRight(kChunks - 1));
    for (int i = 0; i < kept; ++i) image.Damage(image.Chunk(i).GetDataOffset());
    EXPECT_TRUE(isRight(kept)) << kept;
    EXPECT_FALSE(isRight(kept - 1));
    EXPECT_TRUE(isRight(kept + 2));
  }
}

TEST(ExtractTest, AHistoryIsSetUpOnceAndComesBackAsItWas) {
  CapsuleFile closed;
  CapsulePartition partition(closed);
  CapsuleFileBlock block(nullptr, partition);
  std::string history(LzsSizeOfDecompressionHistory(), 'h');
  const int size = static_cast<int>(history.size());
  EXPECT_EQ(block.ResetHistoryBuffer(), -1);
  EXPECT_EQ(block.SetUpHistoryBuffer(history.data(), size), 0);
  EXPECT_EQ(block.SetUpHistoryBuffer(history.data(), size), -1);
  history[0] = 'x';
  EXPECT_EQ(block.ResetHistoryBuffer(), 0);
  EXPECT_EQ(history[0], 'h');
}

// A hundred and twenty thousand chunks: neither the walk nor going on is quadratic.
TEST(ExtractTest, LongFilesAreReadInSmallSteps) {
  constexpr int kChunks = 120'000;
  const std::string piece = RandomText(16, 10);
  MadeImage image(false, kChunks * 16, [&](auto& m) {
    for (int i = 0; i < kChunks; ++i) m.Data(i + 1 == kChunks ? 1 : 0, 0, piece);
  });
  for (int i = 0; i < kChunks; i += 3) {
    ASSERT_EQ(image.Range(i * 16, 32).substr(0, 16), piece);
  }
}

}  // namespace
}  // namespace capsule
