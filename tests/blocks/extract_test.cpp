#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "capsule/blocks/data_block.h"
#include "capsule/compression/lzs.h"
#include "tests/support/image_maker.h"
#include "tests/support/open_image.h"
#include "tests/support/sample_images.h"
#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

using test::BlockAt;
using test::Extract;
using test::OpenImage;
using test::SamplePath;

uint32_t Below(std::mt19937& random, size_t bound) {
  return static_cast<uint32_t>(random() % bound);
}

std::string RandomText(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string text(size, '\0');
  for (char& c : text) c = static_cast<char>('a' + random() % 26);
  return text;
}

// `chunks` as LZS units with one history, each padded to 512 bytes.
std::vector<std::string> CompressChunks(const std::vector<std::string>& chunks) {
  std::vector<unsigned char> history(LzsSizeOfCompressionHistory());
  LzsInitCompressionHistory(history.data());
  std::vector<std::string> units;
  for (const std::string& chunk : chunks) {
    std::vector<unsigned char> in(chunk.begin(), chunk.end());
    std::vector<unsigned char> out(12288);
    const unsigned char* source = in.data();
    unsigned char* destination = out.data();
    auto sourceCount = static_cast<uint32_t>(in.size());
    auto room = static_cast<uint32_t>(out.size());
    const uint16_t result = LzsCompress(&source, &destination, &sourceCount, &room, history.data(),
                                        static_cast<uint16_t>(LzsEndOfInput | LzsKeepHistory), 0);
    EXPECT_NE(result & LzsUnitComplete, 0);
    units.emplace_back(out.begin(), out.begin() + (destination - out.data()));
  }
  return units;
}

// An image with one file, whose records `add` lays out.
class OneFile {
 public:
  OneFile(bool compressed, uint32_t size, const std::function<void(test::ImageMaker&)>& add) {
    test::ImageMaker maker(compressed);
    maker.BeginSection();
    maker.File("F       BIN", size);
    add(maker);
    maker.EndSection();
    test::WriteFile(m_Dir / "image", maker.Finish());
    m_pImage = std::make_unique<OpenImage>(m_Dir / "image");
    EXPECT_EQ(m_pImage->Read(), 0);
  }

  CapsuleFile& File() { return m_pImage->File(); }
  CapsuleFileBlock& Block() { return *BlockAt(m_pImage->Partition(0)->GetFileBlocks(), 0); }
  std::string Path() const { return m_Dir / "image"; }
  std::string Range(int start, int length) { return Extract(File(), Block(), start, length); }
  int BlockCount() { return Block().GetFileDataBlockList().GetCount(); }
  int IsHeld(int i) {
    auto* block = static_cast<CapsuleFileDataBlock*>(Block().GetFileDataBlockList().GetAt(i));
    return block->IsDecompressed();
  }

 private:
  test::TempDir m_Dir;
  std::unique_ptr<OpenImage> m_pImage;
};

// A file of `content` in compressed records of `chunkSize` bytes.
void AddCompressed(test::ImageMaker& maker, const std::string& content, size_t chunkSize) {
  std::vector<std::string> chunks;
  for (size_t at = 0; at < content.size(); at += chunkSize) {
    chunks.push_back(content.substr(at, chunkSize));
    chunks.back().resize((chunks.back().size() + 511) / 512 * 512);
  }
  const std::vector<std::string> units = CompressChunks(chunks);
  for (size_t i = 0; i < units.size(); ++i) {
    maker.Data(i + 1 == units.size() ? 1 : 0, static_cast<uint32_t>(chunks[i].size()), units[i]);
  }
}

void CompareRandomRanges(OneFile& file, const std::string& content, unsigned seed) {
  std::mt19937 random(seed);
  for (int turn = 0; turn < 300; ++turn) {
    const uint32_t start = Below(random, content.size());
    const uint32_t length = Below(random, turn % 3 == 0 ? content.size() + 100 : 3000);
    ASSERT_EQ(file.Range(static_cast<int>(start), static_cast<int>(length)),
              content.substr(start, length))
        << start << " " << length;
    if (turn % 50 == 0) file.Block().ClearDecompressedFilePointer();
  }
}

TEST(ExtractTest, RangesInAnyOrderEqualAPlainModel) {
  const std::string content = RandomText(700'001, 1);
  for (const bool readFirst : {false, true}) {
    OneFile compressed(true, 700'001, [&](auto& m) { AddCompressed(m, content, 8192); });
    OneFile stored(false, 700'001, [&](auto& m) { m.Stored(content); });
    OneFile storedInCompressed(true, 700'001, [&](auto& m) { m.Stored(content); });
    for (OneFile* file : {&compressed, &stored, &storedInCompressed}) {
      if (readFirst) {
        CapsuleFileBlock& block = file->Block();
        ASSERT_TRUE(
            block.ReadDataBlocks(file->File().GetImageFileHandle(), block.GetDUPDATAOffset()));
      }
      CompareRandomRanges(*file, content, 2);
      EXPECT_EQ(file->BlockCount(), 86);
    }
  }
}

TEST(ExtractTest, RecordsOf16384BytesAreReadAsWell) {
  OpenImage image(SamplePath("f_16384_lzs.img"));
  ASSERT_EQ(image.Read(), 0);
  std::mt19937 random(3);
  test::ForEachBlock(image.Partition(0)->GetFileBlocks(), [&](CapsuleFileBlock& block) {
    const uint32_t size = block.GetDirectoryEntry().FileSize();
    if (size == 0) return;
    const std::string content = test::ExtractAll(image.File(), block);
    ASSERT_EQ(content.size(), size);
    EXPECT_EQ(block.GetFileDataBlockList().GetCount(), static_cast<int>((size + 16383) / 16384));
    for (int turn = 0; turn < 50; ++turn) {
      const uint32_t start = Below(random, size);
      const uint32_t length = Below(random, 20000);
      ASSERT_EQ(Extract(image.File(), block, static_cast<int>(start), static_cast<int>(length)),
                content.substr(start, length));
    }
  });
}

TEST(ExtractTest, GoingForwardEveryChunkIsDecodedOnceAndReleasedBehindTheRange) {
  const std::string content = RandomText(20000, 4);
  OneFile file(true, 20000, [&](auto& m) { AddCompressed(m, content, 8192); });
  EXPECT_EQ(file.Range(0, 10000), content.substr(0, 10000));
  EXPECT_EQ(file.IsHeld(0) + file.IsHeld(1), 2);
  EXPECT_EQ(file.IsHeld(2), 0);
  const auto* second =
      static_cast<CapsuleFileDataBlock*>(file.Block().GetFileDataBlockList().GetAt(1))
          ->GetPtrToUncompressedDataBuffer();
  EXPECT_EQ(file.Range(10000, 10000), content.substr(10000));
  EXPECT_EQ(file.IsHeld(0), 0);
  EXPECT_EQ(file.IsHeld(1) + file.IsHeld(2), 2);
  EXPECT_EQ(static_cast<CapsuleFileDataBlock*>(file.Block().GetFileDataBlockList().GetAt(1))
                ->GetPtrToUncompressedDataBuffer(),
            second);
}

TEST(ExtractTest, WhereARangeMayBegin) {
  const std::string content = RandomText(9000, 5);
  OneFile file(true, 9000, [&](auto& m) { AddCompressed(m, content, 8192); });
  CapsuleFileBlock& block = file.Block();
  const auto decompress = [&](int start, int length) {
    const int result = block.DecompressFile(&file.File(), start, &length);
    return std::pair(result, length);
  };
  EXPECT_EQ(decompress(9000, 10), std::pair(-1, 10));
  EXPECT_EQ(decompress(-1, 10), std::pair(-1, 10));
  EXPECT_EQ(decompress(8999, 10), std::pair(0, 1));
  EXPECT_EQ(decompress(0, 0x7FFFFFFF), std::pair(0, 9000));
  EXPECT_EQ(decompress(100, -5), std::pair(0, 0));
  EXPECT_EQ(decompress(100, 0), std::pair(0, 0));
  EXPECT_EQ(block.DecompressFileBlocks(&file.File(), 0, 0x7FFFFFFF), -1);
  EXPECT_EQ(block.DecompressFileBlocks(&file.File(), -5, 1), -1);
}

TEST(ExtractTest, DirectoriesAndEmptyFilesHaveNoContents) {
  const test::TempDir dir;
  test::ImageMaker maker(true);
  maker.BeginSection();
  maker.File("EMPTY   BIN", 0);
  maker.Directory("D          ");
  maker.EndSection();
  test::WriteFile(dir / "image", maker.Finish());
  OpenImage image(dir / "image");
  ASSERT_EQ(image.Read(), 0);
  CpsList& blocks = image.Partition(0)->GetFileBlocks();
  int length = 10;
  EXPECT_EQ(BlockAt(blocks, 0)->DecompressFile(&image.File(), 0, &length), -1);
  EXPECT_EQ(BlockAt(blocks, 0)->GetFileDataBlockList().GetCount(), 0);
  EXPECT_EQ(BlockAt(blocks, 1)->DecompressFile(&image.File(), 0, &length), -1);
  EXPECT_EQ(length, -1);
  EXPECT_TRUE(BlockAt(blocks, 1)->ReadDataBlocks(image.Descriptor(), 0));
}

// A size that the records do not back costs nothing and is never extracted.
TEST(ExtractTest, RecordsThatRunOutFailTheExtraction) {
  const std::string content = RandomText(20000, 6);
  OneFile claimed(true, 0xFFFFFFFF, [&](auto& m) { AddCompressed(m, content, 8192); });
  EXPECT_EQ(claimed.BlockCount(), 3);
  EXPECT_EQ(claimed.Range(0, 0x7FFFFFFF), "failed");
  EXPECT_EQ(claimed.Range(20000, 20000), "failed");
  EXPECT_EQ(claimed.Range(100, 19000), content.substr(100, 19000));

  OneFile withoutRecords(true, 5000, [](auto&) {});
  EXPECT_EQ(withoutRecords.BlockCount(), 0);
  EXPECT_EQ(withoutRecords.Range(0, 10), "failed");

  OneFile moreRecords(true, 8192, [&](auto& m) { AddCompressed(m, content, 8192); });
  EXPECT_EQ(moreRecords.BlockCount(), 1);
  EXPECT_EQ(moreRecords.Range(0, 20000), content.substr(0, 8192));
}

TEST(ExtractTest, NothingComesOutOfAnImageThatIsClosed) {
  const std::string content = RandomText(5000, 9);
  OneFile file(true, 5000, [&](auto& m) { AddCompressed(m, content, 8192); });
  ASSERT_TRUE(file.File().CloseImageFileHandle());
  int length = 100;
  EXPECT_EQ(file.Block().DecompressFile(&file.File(), 0, &length), 0);
  EXPECT_EQ(length, -1);
}

TEST(ExtractTest, ABlockWithoutDataFailsTheRangesThatNeedIt) {
  const std::string content = RandomText(24576, 7);
  const std::vector<std::string> units =
      CompressChunks({content.substr(0, 8192), content.substr(8192, 8192), content.substr(16384)});
  OneFile outOfRange(true, 24576, [&](auto& m) {
    m.Data(0, 8192, units[0]);
    m.Data(0, 70000, units[1]);
    m.Data(1, 8192, units[2]);
  });
  OneFile damaged(true, 24576, [&](auto& m) {
    m.Data(0, 8192, units[0]);
    m.Data(0, 8192, std::string("\x80\0\0\0", 4));  // 11-bit offset 0
    m.Data(1, 8192, units[2]);
  });
  for (OneFile* file : {&outOfRange, &damaged}) {
    EXPECT_EQ(file->Range(0, 8191), content.substr(0, 8191));
    EXPECT_EQ(file->Range(8000, 1000), "failed");
    EXPECT_EQ(file->Block().GetPtrToDecompressedFile(), nullptr);
    EXPECT_EQ(file->Range(20000, 1000), "failed");
    EXPECT_EQ(file->Range(10, 8000), content.substr(10, 8000));
  }
}

TEST(ExtractTest, OneHistoryAFile) {
  const std::string first = RandomText(20000, 8);
  const std::string second = RandomText(20000, 9);
  const test::TempDir dir;
  test::ImageMaker maker(true);
  maker.BeginSection();
  maker.File("A       BIN", 20000);
  AddCompressed(maker, first, 8192);
  maker.File("B       BIN", 20000);
  AddCompressed(maker, second, 8192);
  maker.EndSection();
  test::WriteFile(dir / "image", maker.Finish());
  OpenImage image(dir / "image");
  ASSERT_EQ(image.Read(), 0);
  CpsList& blocks = image.Partition(0)->GetFileBlocks();
  std::string a;
  std::string b;
  for (int at = 0; at < 20000; at += 1000) {
    a += Extract(image.File(), *BlockAt(blocks, 0), at, 1000);
    b += Extract(image.File(), *BlockAt(blocks, 1), at, 1000);
  }
  EXPECT_EQ(a, first);
  EXPECT_EQ(b, second);
}

TEST(ExtractTest, AHistoryIsSetUpOnce) {
  OneFile file(true, 100, [](auto& m) { AddCompressed(m, std::string(100, 'x'), 8192); });
  std::vector<char> history(LzsSizeOfDecompressionHistory(), 7);
  CapsulePartition partition(file.File());
  CapsuleFileBlock block(nullptr, partition);
  EXPECT_EQ(block.ResetHistoryBuffer(), -1);
  const int size = static_cast<int>(history.size());
  EXPECT_EQ(block.SetUpHistoryBuffer(history.data(), size), 0);
  EXPECT_EQ(block.SetUpHistoryBuffer(history.data(), size), -1);
  history[0] = 1;
  EXPECT_EQ(block.ResetHistoryBuffer(), 0);
  EXPECT_EQ(history[0], 7);
  EXPECT_EQ(block.IsHeaderCreated(5), 0);
}

// A hundred and twenty thousand chunks: neither the walk nor going on is quadratic.
TEST(ExtractTest, LongFilesAreReadInSmallSteps) {
  constexpr int kChunks = 120'000;
  OneFile file(false, kChunks * 16, [&](auto& m) {
    for (int i = 0; i < kChunks; ++i) m.Data(i + 1 == kChunks ? 1 : 0, 0, RandomText(16, 10));
  });
  const std::string piece = RandomText(16, 10);
  for (int i = 0; i < kChunks; i += 3) {
    ASSERT_EQ(file.Range(i * 16, 32).substr(0, 16), piece);
  }
}

}  // namespace
}  // namespace capsule
