#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <vector>

#include "capsule/blocks/data_block.h"
#include "capsule/blocks/data_record.h"
#include "capsule/blocks/file_block.h"
#include "capsule/compression/lzs.h"
#include "capsule/compression/stream_compressor.h"
#include "capsule/container/capsule_file.h"
#include "capsule/partition/partition.h"
#include "capsule/platform/scoped_descriptor.h"
#include "tests/support/bytes.h"
#include "tests/support/source_tree.h"

namespace capsule {
namespace {

using test::U16At;
using test::U32At;
using test::U8At;

constexpr auto kFat32 = CapsuleDirectoryEntry::DirTypeFat32;
constexpr int kGroup = 40;  // bytes of the record group of an 8.3 name

class FileBlockWrite : public testing::Test {
 protected:
  enum class Way { Chunked, Streamed };

  // The data block records of C:\F.BIN; none when writing failed.
  std::optional<std::string> Records(Way way, int level) {
    const std::string target = m_tree.Beside("records");
    std::filesystem::remove(target);
    const platform::ScopedDescriptor image(platform::OpenForWriting(target.c_str()));
    m_tree.State().compressor->ResetCompressionHistory();
    CapsuleFileBlock block(nullptr, m_partition);
    int total = 0;
    EXPECT_EQ(block.WriteDirEntry(kFat32, kPath, image.Get(), 0, &total), 0);
    EXPECT_EQ(total, kGroup);
    if (m_betweenEntryAndData) m_betweenEntryAndData();
    const bool written =
        way == Way::Streamed
            ? block.StreamFile(kPath, image.Get(), kGroup, &total, level) == 0
            : block.ReadAndChunk(kPath) == 0 &&
                  block.WriteFile(image.Get(), kGroup, &total, level, nullptr) == 0;
    const std::string bytes = test::ReadFile(target);
    if (!written) {
      EXPECT_EQ(total, kGroup);
      return std::nullopt;
    }
    EXPECT_EQ(static_cast<size_t>(total), bytes.size());
    return bytes.substr(kGroup);
  }

  void Source(const std::string& bytes) { m_tree.AddFile("F.BIN", bytes); }

  // The file's bytes that `records` stand for; their headers are checked against its size.
  static std::string Decode(const std::string& records, size_t size, int level) {
    std::string history(LzsSizeOfDecompressionHistory(), '\0');
    LzsInitDecompressionHistory(history.data());
    std::string content;
    size_t at = 0;
    for (size_t left = size; left > 0;) {
      const size_t chunk = std::min<size_t>(left, kChunkSize);
      left -= chunk;
      const uint32_t padded = PaddedChunkLength(static_cast<uint32_t>(chunk));
      const uint16_t length = U16At(records, at + 6);
      EXPECT_EQ(U8At(records, at), 3);
      EXPECT_EQ(U8At(records, at + 1), left == 0 ? 1 : 0);
      EXPECT_EQ(U32At(records, at + 2), level == 0 ? 0 : padded);
      EXPECT_EQ(length == padded, level == 0);
      const std::string payload = records.substr(at + 8, length);
      at += 8U + length;
      if (level == 0) {
        content += payload;
        continue;
      }
      std::vector<unsigned char> out(padded);
      const unsigned char* source = test::Unsigned(payload);
      unsigned char* destination = out.data();
      uint32_t sourceCount = length;
      uint32_t room = padded;
      EXPECT_NE(
          LzsDecompress(&source, &destination, &sourceCount, &room, history.data(), LzsKeepHistory),
          0);
      EXPECT_EQ(room, 0U);
      content.append(out.begin(), out.end());
    }
    EXPECT_EQ(at, records.size());
    EXPECT_EQ(content.substr(size), test::Zeros(content.size() - size));
    return content.substr(0, size);
  }

  static constexpr const char* kPath = "C:\\F.BIN";
  test::SourceTree m_tree;
  CapsuleFile m_image;
  CapsulePartition m_partition{m_image};
  std::function<void()> m_betweenEntryAndData;
};

TEST_F(FileBlockWrite, StreamedAndChunkedRecordsAreTheSameAndHoldTheFile) {
  for (const size_t size : {1U, 511U, 512U, 513U, 1000U, 8191U, 8192U, 8193U, 16384U, 20000U}) {
    const std::string content = test::MixedBytes(size, 3);
    Source(content);
    for (const int level : {0, 1, 5, 9}) {
      const auto streamed = Records(Way::Streamed, level);
      ASSERT_TRUE(streamed);
      EXPECT_TRUE(streamed == Records(Way::Chunked, level)) << size << " at " << level;
      EXPECT_TRUE(Decode(*streamed, size, level) == content) << size << " at " << level;
    }
  }
}

TEST_F(FileBlockWrite, LevelsAboveSixAndBelowZeroSearchMost) {
  Source(test::MixedBytes(30000, 11));
  for (const auto& [level, alike] : {std::pair(9, 7), {9, 8}, {9, -1}, {1, 3}, {4, 6}}) {
    EXPECT_TRUE(Records(Way::Streamed, level) == Records(Way::Streamed, alike)) << alike;
  }
  EXPECT_FALSE(Records(Way::Streamed, 3) == Records(Way::Streamed, 4));
}

// Noise and then zeros: its unit grows with the share of noise, past the length of the chunk.
std::string ChunkWithAnEquallyLongUnit(StreamCompressor& compressor) {
  for (uint32_t seed = 1; seed < 50; ++seed) {
    std::mt19937 random(seed);
    std::string chunk = test::Zeros(512);
    for (char& byte : chunk) {
      byte = static_cast<char>(random());
      compressor.ResetCompressionHistory();
      compressor.CompressBuffer(test::Unsigned(chunk), 512, nullptr, 0);
      if (compressor.GetCompressedSize() == 512) return chunk;
    }
  }
  return {};
}

TEST_F(FileBlockWrite, AUnitAsLongAsItsChunkGetsOneByteMore) {
  StreamCompressor& compressor = *m_tree.State().compressor;
  compressor.SetFastCompression();
  const std::string chunk = ChunkWithAnEquallyLongUnit(compressor);
  ASSERT_EQ(chunk.size(), 512U);
  Source(chunk);
  const auto records = Records(Way::Streamed, 1);
  ASSERT_TRUE(records);
  EXPECT_EQ(records->size(), 8U + 513);
  EXPECT_EQ(records->back(), '\0');
  EXPECT_TRUE(records == Records(Way::Chunked, 1));
  EXPECT_TRUE(Decode(*records, 512, 1) == chunk);

  std::string room(12288, 'x');
  std::string copy = chunk;
  int length = 0;
  compressor.ResetCompressionHistory();
  CapsuleFileDataBlock block(kFat32, 0);
  EXPECT_EQ(block.Compress(copy.data(), 512, room.data(), &length, nullptr, 0), 0);
  EXPECT_EQ(length, 513);
  EXPECT_TRUE(room.substr(0, 513) == records->substr(8));
  EXPECT_EQ(room.substr(513), std::string(12288 - 513, 'x'));
}

TEST_F(FileBlockWrite, ASourceThatChangesAfterItsEntryIsAFailure) {
  const std::string content = test::MixedBytes(20000, 5);
  const std::string path = m_tree.Source("F.BIN");
  const auto expectFailure = [&](const std::function<void()>& change) {
    Source(content);
    m_betweenEntryAndData = change;
    EXPECT_FALSE(Records(Way::Streamed, 5));
  };
  for (const uintmax_t size : {0U, 8192U, 19999U, 20001U, 40000U}) {
    SCOPED_TRACE(size);
    expectFailure([&] { std::filesystem::resize_file(path, size); });
  }
  expectFailure([&] { std::filesystem::remove(path); });
  expectFailure([&] {
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
  });
}

TEST_F(FileBlockWrite, NoRecordPassesTheLargestImage) {
  Source("x");
  const std::string target = m_tree.Beside("sparse");
  const platform::ScopedDescriptor image(platform::OpenForWriting(target.c_str()));
  constexpr int kEnd = 0x7FFFFFFF - 1544;
  CapsuleFileBlock block(nullptr, m_partition);
  int total = 0;
  EXPECT_EQ(block.WriteDirEntry(kFat32, kPath, image.Get(), kEnd - 39, &total), -1);
  EXPECT_EQ(block.WriteDirEntry(kFat32, kPath, image.Get(), kEnd - 40, &total), 0);
  EXPECT_EQ(block.StreamFile(kPath, image.Get(), kEnd - 519, &total, 0), -1);
  EXPECT_EQ(total, 40);
  EXPECT_EQ(block.StreamFile(kPath, image.Get(), kEnd - 520, &total, 0), 0);
  EXPECT_EQ(m_partition.WritePartitionTrailer(image.Get(), kEnd + 1), -1);
  EXPECT_EQ(m_partition.WritePartitionTrailer(image.Get(), kEnd), 0);
  EXPECT_EQ(std::filesystem::file_size(target), 0x7FFFFFFFU);
}

TEST_F(FileBlockWrite, AChunkThatCannotBeReadLeavesTheNextFileAtItsBeginning) {
  CapsuleFileDataBlock block(kFat32, 0);
  Source("");
  EXPECT_EQ(block.ReadFileData(kPath), -1);
  const std::string content = test::MixedBytes(20000, 1);
  Source(content);
  EXPECT_EQ(block.ReadFileData(kPath), 8192);
  std::filesystem::resize_file(m_tree.Source("F.BIN"), 5000);
  EXPECT_EQ(block.ReadFileData(kPath), -1);
  EXPECT_EQ(block.GetChunkPtr(), nullptr);
  EXPECT_EQ(block.ReadFileData("C:\\missing"), -1);
  EXPECT_EQ(block.ReadFileData(kPath), 0);
  EXPECT_EQ(std::string(block.GetChunkPtr(), 5000), content.substr(0, 5000));

  const CapsuleFileDataBlock copy(block);
  block.DeleteChunkPtr();
  CapsuleFileDataBlock second(kFat32, 0);
  second = copy;
  EXPECT_EQ(std::string(second.GetChunkPtr(), 5000), content.substr(0, 5000));
  EXPECT_EQ(second.IsLast(), 1);
  EXPECT_EQ(second.GetFileSize(), 5000);
}

TEST_F(FileBlockWrite, AChainOfBlocksIsDestroyedWithoutDeepRecursion) {
  CapsuleFileBlock root(nullptr, m_partition);
  CapsuleFileBlock* deepest = &root;
  for (int i = 0; i < 100000; ++i) {
    auto* child = new CapsuleFileBlock(deepest, m_partition);
    deepest->InsertFileBlock(child);
    deepest = child;
  }
  root.InsertFileBlock(new CapsuleFileBlock(&root, m_partition));
  root.Close();
  EXPECT_EQ(root.FileList().GetCount(), 0);
}

}  // namespace
}  // namespace capsule
