#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/data_record.h"
#include "capsule/compression/lzs.h"
#include "tests/support/bytes.h"
#include "tests/support/image_maker.h"
#include "tests/support/open_image.h"
#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

using test::OpenImage;

// A unit: ten times the byte 0x61.
const std::string kTenAs("\x30\xE0\x7C\x70\x00", 5);

// An image with one record, opened, and a data block that has read it.
class OneRecord {
 public:
  OneRecord(bool compressed, uint32_t param, const std::string& payload)
      : m_block(CapsuleDirectoryEntry::DirTypeFat32, 0) {
    test::ImageMaker maker(compressed);
    const auto offset = static_cast<int>(maker.Here());
    maker.Data(1, param, payload);
    test::WriteFile(m_dir / "image", maker.Finish());
    m_image = std::make_unique<OpenImage>(m_dir / "image");
    EXPECT_EQ(m_image->Read(1), 0);
    int position = offset;
    EXPECT_EQ(m_block.Read(m_image->Descriptor(), offset, &position), 0);
    EXPECT_EQ(m_block.GetDataOffset(), offset + 8);
    EXPECT_EQ(position, offset + 8 + static_cast<int>(payload.size()));
    m_history.resize(LzsSizeOfDecompressionHistory());
    LzsInitDecompressionHistory(m_history.data());
  }

  void ReadAgain() {
    int position = m_block.GetDataOffset() - 8;
    EXPECT_EQ(m_block.Read(Descriptor(), position, &position), 0);
  }

  // Puts `bytes` at the end of the image; where they are.
  int Append(const std::string& bytes) {
    const std::string image = test::ReadFile(m_dir / "image");
    test::WriteFile(m_dir / "image", image + bytes);
    return static_cast<int>(image.size());
  }

  int Descriptor() { return m_image->Descriptor(); }
  CapsuleFile* File() { return &m_image->File(); }
  CapsuleFileDataBlock& Block() { return m_block; }
  char* History() { return static_cast<char*>(static_cast<void*>(m_history.data())); }
  int Decompress() { return m_block.Decompress(File(), History()); }

  std::string Chunk() {
    return {m_block.GetPtrToUncompressedDataBuffer(), m_block.GetMiniHeader().Param};
  }

 private:
  test::TempDir m_dir;
  std::unique_ptr<OpenImage> m_image;
  CapsuleFileDataBlock m_block;
  std::vector<unsigned char> m_history;
};

TEST(DataBlockReadTest, ARecordThatIsCutIsAnError) {
  const test::TempDir dir;
  test::ImageMaker maker(true);
  const auto offset = maker.Here();
  maker.Data(1, 1024, std::string(300, 'p'));
  const std::string bytes(maker.Bytes().begin(), maker.Bytes().end());
  for (const size_t size : {0U, 1U, 7U, 8U, 100U, 307U, 308U}) {
    test::WriteFile(dir / "image", bytes.substr(0, offset + size));
    OpenImage image(dir / "image");
    CapsuleFileDataBlock block(CapsuleDirectoryEntry::DirTypeFat32, 0);
    int position = size == 308 ? 0x7FFFFFFF : static_cast<int>(offset);  // not to be counted
    EXPECT_EQ(block.Read(image.Descriptor(), static_cast<int>(offset), &position), -1) << size;
    EXPECT_FALSE(block.HasPayload());
  }
}

TEST(DataBlockReadTest, PayloadsAreStoredOrCompressed) {
  const std::string plain(1024, 's');
  struct Case {
    bool compressed;
    uint32_t param;
    std::string payload;
    std::string chunk;
  };
  const std::vector<Case> cases = {
      {false, 0, plain, plain},          // an image without compression
      {false, 8192, plain, plain},       // there Param does not count
      {true, 0, plain, plain},           // stored because of its name
      {true, 1024, plain, plain},        // as long as its chunk
      {true, 0xFFFFFFFF, plain, plain},  // no length
      {true, 10, kTenAs, "aaaaaaaaaa"},  // a unit
      {true, 16, kTenAs, "aaaaaaaaaa" + test::Zeros(6)},
      {true, 3, std::string("\xC0\x00", 2), test::Zeros(3)},     // a unit of nothing
      {true, 65536, kTenAs, "aaaaaaaaaa" + test::Zeros(65526)},  // the largest
  };
  for (const Case& c : cases) {
    OneRecord record(c.compressed, c.param, c.payload);
    int end = 0;
    EXPECT_EQ(record.Block().IsWithinOffset(record.File(), 0, 0, 1, &end), 1);
    EXPECT_EQ(static_cast<size_t>(end), c.chunk.size());
    EXPECT_EQ(record.Decompress(), 0);
    EXPECT_EQ(record.Block().IsDecompressed(), 1);
    EXPECT_EQ(record.Chunk(), c.chunk);
  }
}

TEST(DataBlockReadTest, LengthsOutOfRangeLeaveNoData) {
  for (const uint32_t param : {65537U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFEU}) {
    OneRecord record(true, param, kTenAs);
    EXPECT_EQ(record.Decompress(), 0) << param;
    EXPECT_EQ(record.Block().IsDecompressed(), 0);
    int end = 0;
    record.Block().IsWithinOffset(record.File(), 1000, 0, 1, &end);
    EXPECT_GT(end, 65536);
  }
}

// What a block holds is of the record that it read last.
TEST(DataBlockReadTest, NothingIsLeftOfTheRecordBefore) {
  for (const bool outOfRange : {true, false}) {
    OneRecord record(true, 10, kTenAs);
    ASSERT_EQ(record.Decompress(), 0);
    if (outOfRange) {
      record.Block().GetMiniHeader().Param = 65537;
      EXPECT_EQ(record.Decompress(), 0);
    } else {
      record.ReadAgain();
    }
    EXPECT_EQ(record.Block().IsDecompressed(), 0);
    EXPECT_EQ(record.Block().GetPtrToUncompressedDataBuffer(), nullptr);
    char room[16];
    char* cursor = room;
    EXPECT_EQ(record.Block().WriteDecompressedBuffer(&cursor, 0, 0, 16), 0);
    EXPECT_EQ(cursor, room);
  }
}

TEST(DataBlockReadTest, NoMoreIsCopiedThanTheRecordStatesAndTheBlockHolds) {
  OneRecord record(true, 10, kTenAs);
  const std::string data(100, 'x');
  record.Block().AssignUncompressedBuffer(test::Unsigned(data), 100);
  for (const uint32_t stated : {10U, 100U, 200U}) {
    record.Block().GetMiniHeader().Param = stated;
    std::string room(300, '.');
    char* cursor = room.data();
    EXPECT_EQ(record.Block().WriteDecompressedBuffer(&cursor, 0, 0, 300), 0);
    EXPECT_EQ(cursor - room.data(), std::min(stated, 100U));
    EXPECT_EQ(room.find('.'), std::min(stated, 100U));
  }
}

// All that a block tells.
std::string Describe(CapsuleFileDataBlock& block) {
  const _MiniHeader& header = block.GetMiniHeader();
  const std::span<unsigned char> chunk = block.Uncompressed();
  std::string text(chunk.begin(), chunk.end());
  for (const int64_t value :
       {int64_t{header.Type}, int64_t{header.Flag}, int64_t{header.Param}, int64_t{header.Length},
        int64_t{block.IsLast()}, int64_t{block.IsValid()}, int64_t{block.IsDecompressed()},
        int64_t{block.IsResident()}, int64_t{block.IsPrimaryData()}, int64_t{block.GetDataOffset()},
        int64_t{block.NTFSIsFileRecord()}, int64_t{block.NTFSIsDirectory()},
        int64_t{block.HasPayload()}, int64_t{block.GetFileSize()}}) {
    text += ' ' + std::to_string(value);
  }
  return text;
}

TEST(DataBlockReadTest, CopiesTakeEverything) {
  std::string header = test::Zeros(46);
  header[1] = 1;    // the last
  header[2] = 102;  // the FILE record of a folder
  header[8] = 10;   // decoded
  header[10] = 5;   // stored
  header[42] = 7;   // "primary"
  const std::string record = header + kTenAs;
  OneRecord image(true, 10, kTenAs);
  const int at = image.Append(record);
  CapsuleFileDataBlock block(CapsuleDirectoryEntry::DirTypeNtfs, 0);
  int end = at;
  ASSERT_EQ(block.Read(image.Descriptor(), at, &end), 0);
  ASSERT_EQ(block.Decompress(image.File(), image.History()), 0);
  block.SetIsResident(true);
  block.IsValid(3);
  const std::string whole =
      "aaaaaaaaaa 102 1 10 5 1 3 1 1 7 " + std::to_string(at + 46) + " 1 1 1 0";
  EXPECT_EQ(Describe(block), whole);
  CapsuleFileDataBlock constructed(block);
  CapsuleFileDataBlock assigned(CapsuleDirectoryEntry::DirTypeFat32, 0);
  assigned = block;
  block.ClearOutBuffers();
  for (CapsuleFileDataBlock* copy : {&constructed, &assigned}) {
    EXPECT_EQ(Describe(*copy), whole);
    EXPECT_EQ(copy->Read(image.Descriptor(), at, &end), 0);
    EXPECT_EQ(copy->GetMiniHeader().Length, 5) << "reads records of the same kind";
  }
  CapsuleFileDataBlock packed(image.Block());
  assigned = image.Block();
  image.Block().ClearOutBuffers();
  for (CapsuleFileDataBlock* copy : {&packed, &assigned}) {
    LzsInitDecompressionHistory(image.History());
    EXPECT_EQ(copy->Decompress(image.File(), image.History()), 0) << "from the payload it holds";
    EXPECT_EQ(Describe(*copy).substr(0, 10), "aaaaaaaaaa");
  }
}

// Such a unit counts, but the decoder must not be led back into its memory by the next one.
TEST(DataBlockReadTest, NothingDecodesAfterAUnitWithoutItsEnd) {
  for (const auto& [param, payload] :
       {std::pair<uint32_t, std::string>{4, kTenAs},
        {64, kTenAs.substr(0, 3)},
        {6, test::Hex("30 98 8C 78 1E")}}) {  // both used up, inside a match
    OneRecord first(true, param, payload);
    EXPECT_EQ(first.Decompress(), 0);
    EXPECT_EQ(first.Block().IsDecompressed(), 1);
    OneRecord second(true, 10, kTenAs);
    first.Block().ClearOutBuffers();
    EXPECT_EQ(second.Block().Decompress(second.File(), first.History()), -1);
  }
}

TEST(DataBlockReadTest, TheHistoryGoesFromBlockToBlockAndNothingLiesBeforeIt) {
  OneRecord first(true, 10, kTenAs);
  ASSERT_EQ(first.Decompress(), 0);
  const std::string fiveFromTenBack("\xC5\x66\x00", 3);
  OneRecord second(true, 5, fiveFromTenBack);
  EXPECT_EQ(second.Block().Decompress(second.File(), first.History()), 0);
  EXPECT_EQ(second.Chunk(), "aaaaa");
  OneRecord alone(true, 5, fiveFromTenBack);
  EXPECT_EQ(alone.Decompress(), -1);
  EXPECT_EQ(alone.Block().IsDecompressed(), 0);
}

TEST(DataBlockReadTest, OverlapsAreClosedIntervals) {
  OneRecord record(false, 0, std::string(8192, 'x'));
  const auto within = [&](int block, int start, int end) {
    int blockEnd = 0;
    return record.Block().IsWithinOffset(record.File(), block, start, end, &blockEnd);
  };
  EXPECT_EQ(within(8192, 16384, 20000), 1);
  EXPECT_EQ(within(0, 100, 200), 1);
  EXPECT_EQ(within(100, 0, 50000), 1);
  EXPECT_EQ(within(0, 9000, 9100), 0);
  EXPECT_EQ(within(8192, 0, 8191), 0);
}

TEST(DataBlockReadTest, AnAssignedBufferIsACopyAndGoesWithThePayload) {
  OneRecord record(true, 10, kTenAs);
  unsigned char data[] = {1, 2, 3, 4};
  record.Block().AssignUncompressedBuffer(data, 4);
  data[0] = 9;
  EXPECT_EQ(record.Block().IsDecompressed(), 1);
  EXPECT_EQ(record.Block().GetPtrToUncompressedDataBuffer()[0], 1);
  record.Block().ClearOutBuffers();
  EXPECT_EQ(record.Block().IsDecompressed(), 0);
  EXPECT_EQ(record.Block().GetPtrToUncompressedDataBuffer(), nullptr);
  EXPECT_EQ(record.Decompress(), -1);
}

}  // namespace
}  // namespace capsule
