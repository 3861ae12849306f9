// Every exported operation out of order, twice, with null, with negative or huge numbers: the
// result that its header promises, under the sanitizers without a complaint.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "capsule/capsule.h"
#include "tests/support/bytes.h"
#include "tests/support/image_maker.h"
#include "tests/support/open_image.h"
#include "tests/support/source_tree.h"
#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

using test::Hex;
using test::OpenImage;
using test::SourceTree;

constexpr int kHuge = std::numeric_limits<int>::max();
constexpr int kLowest = std::numeric_limits<int>::min();
constexpr auto kFat = CapsuleDirectoryEntry::DirTypeFat32;
constexpr auto kNtfs = CapsuleDirectoryEntry::DirTypeNtfs;

struct Call {
  const char* what;
  std::function<int64_t()> run;
  int64_t expected;
};

void ExpectAll(const std::vector<Call>& calls) {
  for (const Call& call : calls) EXPECT_EQ(call.run(), call.expected) << call.what;
}

// For operations without a result: 0 once they have come back.
template <typename Work>
int64_t Done(Work work) {
  work();
  return 0;
}

TEST(Misuse, Buffer) {
  CapsuleBuffer buffer;
  unsigned char bytes[8] = {'a', 'b', 'c'};
  char memory[4] = {'1', '2', '3', '4'};
  ExpectAll({
      {"read from nothing", [&] { return buffer.Read(bytes[7]); }, 0},
      {"index into nothing", [&] { return buffer[0]; }, 0},
      {"null add", [&] { return buffer.Add(nullptr, 5); }, 0},
      {"negative add", [&] { return buffer.Add(bytes, -5); }, 0},
      {"add", [&] { return buffer.Add(bytes, 3); }, 3},
      {"negative add to memory", [&] { return buffer.Add(bytes, kLowest); }, 0},
      {"negative room", [&] { return buffer.HandleAllocation(-1); }, 0},
      {"negative length", [&] { return buffer.AddLength(-1); }, 0},
      {"huge length", [&] { return buffer.AddLength(kHuge); }, 0},
      {"null read", [&] { return buffer.Read(nullptr, 1); }, 0},
      {"negative read", [&] { return buffer.Read(bytes, -1); }, 0},
      {"index before", [&] { return buffer[-1]; }, 0},
      {"index behind", [&] { return buffer[2048]; }, 0},
      {"negative place", [&] { return Done([&] { buffer.RemoveByte(-1, 2); }); }, 0},
      {"negative count", [&] { return Done([&] { buffer.RemoveByte(1, -1); }); }, 0},
      {"huge count", [&] { return Done([&] { buffer.RemoveByte(kHuge, kHuge); }); }, 0},
      {"size", [&] { return buffer.Size(); }, 3},
      {"null memory", [&] { return Done([&] { buffer.UseThisBuffer(nullptr, 4, 1, -1); }); }, 0},
      {"size of null", [&] { return buffer.Size(); }, 0},
      {"negative memory", [&] { return Done([&] { buffer.UseThisBuffer(memory, -4, 1, 9); }); }, 0},
      {"size of negative", [&] { return buffer.AllocSize(); }, 0},
      {"memory", [&] { return Done([&] { buffer.UseThisBuffer(memory, 4, 1, -1); }); }, 0},
      {"huge room", [&] { return buffer.HandleAllocation(kHuge); }, 0},
      {"size without memory", [&] { return buffer.Size(); }, 0},
      {"twice clean",
       [&] { return Done([&] { (buffer.CleanUpMemory(), buffer.CleanUpMemory()); }); }, 0},
  });
}

TEST(Misuse, BufferTakesItsOwnBytes) {
  CapsuleBuffer buffer;
  const std::string bytes(2000, 'x');
  buffer.Add(test::Unsigned(bytes), 2000);
  const auto* own = static_cast<const unsigned char*>(static_cast<const void*>(buffer.GetRead()));
  ASSERT_EQ(buffer.Add(own, 2000), 2000) << "grows, so the memory may move";
  EXPECT_EQ(std::string(buffer.GetRead(), 4000), bytes + bytes);
}

TEST(Misuse, DirectoryEntry) {
  CapsuleDirectoryEntry entry;
  unsigned char raw[32] = {};
  CString name;
  CString extension;
  int count = 5;
  int flag = 0;
  ExpectAll({
      {"closed file", [&] { return entry.Write(kFat, 0, 0, &count); }, -1},
      {"no file", [&] { return entry.Write(kFat, -1, 0, &count); }, -1},
      {"bad file", [&] { return entry.WriteMiniHeader(9999, 0, &count); }, -1},
      {"negative place", [&] { return entry.WriteDirectoryEntry(kFat, 1, -1, &count); }, -1},
      {"huge place", [&] { return entry.WriteZeroDirectoryEntry(1, kHuge, &count); }, -1},
      {"no counter", [&] { return entry.WriteZeroDirectoryEntry(1, 0, nullptr); }, -1},
      {"nothing pending", [&] { return entry.SetZeroDirEntry(-1, -1, nullptr, flag); }, 0},
      {"read closed", [&] { return entry.Read(kFat, 0, 0, &count); }, -1},
      {"read nowhere", [&] { return entry.Read(kNtfs, -1, kLowest, nullptr); }, -1},
      {"chain into null", [&] { return entry.LongFileNameProcess(32, nullptr, 0, &count); }, -1},
      {"chain of 31", [&] { return entry.LongFileNameProcess(31, raw, 0, &count); }, -1},
      {"chain in closed", [&] { return entry.LongFileNameProcess(32, raw, 0, nullptr); }, -1},
      {"null name", [&] { return Done([&] { entry.FormatLongFileName(nullptr, 255); }); }, 0},
      {"null records",
       [&] { return Done([&] { entry.FileRecordtoDirectoryEntry(nullptr, 1024); }); }, 0},
      {"negative records", [&] { return Done([&] { entry.FileRecordtoDirectoryEntry(raw, -1); }); },
       0},
      {"null information", [&] { return Done([&] { entry.PutStdInfoIntoDirEntry(nullptr); }); }, 0},
      {"null file name", [&] { return Done([&] { entry.PutFileNameIntoDirEntry(nullptr, -1); }); },
       0},
      {"null short name",
       [&] { return entry.ShortName(static_cast<const char*>(nullptr)).empty(); }, 1},
      {"empty path", [&] { return entry.GetFileName("", name, extension); }, 0},
      {"path too short", [&] { return entry.SetFileDirectory(kFat, "x", 0, 0, &count); }, -1},
      {"path not there", [&] { return entry.SetFileDirectory(kFat, "?:\\x", 0, 0, &count); }, -1},
      {"file block", [&] { return entry.GetParentFileBlockPtr() == nullptr; }, 1},
      {"counter", [&] { return count; }, 5},
  });
  CString record;
  entry.SetWideCharStr(record, "", kHuge, -1, kLowest);
  EXPECT_EQ(record.size(), 32U);
}

TEST(Misuse, DataBlock) {
  CapsuleFile closed;
  CapsuleFileDataBlock block(kFat, 0);
  CapsuleFileDataBlock ntfs(kNtfs, kHuge);
  char bytes[64] = {};
  char* cursor = nullptr;
  int number = 0;
  ExpectAll({
      {"null path", [&] { return block.ReadFileData(nullptr); }, -1},
      {"no chunk", [&] { return block.DeleteChunkPtr() == nullptr; }, 1},
      {"null source", [&] { return block.Compress(nullptr, 1, bytes, &number, nullptr, 0); }, -1},
      {"null room", [&] { return block.Compress(bytes, 1, nullptr, &number, nullptr, 0); }, -1},
      {"null length", [&] { return block.Compress(bytes, 1, bytes, nullptr, nullptr, 0); }, -1},
      {"negative", [&] { return block.Compress(bytes, -1, bytes, &number, nullptr, 0); }, -1},
      {"read closed", [&] { return block.Read(0, 0, &number); }, -1},
      {"read to null", [&] { return ntfs.Read(0, 0, nullptr); }, -1},
      {"no image", [&] { return block.Decompress(nullptr, bytes); }, -1},
      {"closed image", [&] { return block.Decompress(&closed, nullptr); }, -1},
      {"range of no image", [&] { return block.IsWithinOffset(nullptr, 0, 0, 1, &number); }, 0},
      {"range to null", [&] { return block.IsWithinOffset(&closed, 0, 0, 1, nullptr); }, 0},
      {"null data", [&] { return Done([&] { block.AssignUncompressedBuffer(nullptr, 9); }); }, 0},
      {"negative data",
       [&] {
         const unsigned char data[] = {1};
         return Done([&] { block.AssignUncompressedBuffer(data, -9); });
       },
       0},
      {"no bytes", [&] { return static_cast<int64_t>(block.Uncompressed().size()); }, 0},
      {"null children", [&] { return Done([&] { block.ReadDirectoryBlock(nullptr); }); }, 0},
      {"null header", [&] { return Done([&] { ntfs.NTFSMINIHEADERtoMINIHEADER(nullptr); }); }, 0},
      {"cleared", [&] { return Done([&] { (block.ClearOutBuffers(), block.ClearOutBuffers()); }); },
       0},
  });
  const std::string data(100, 'x');
  block.AssignUncompressedBuffer(test::Unsigned(data), 100);
  block.GetMiniHeader().Param = 0xFFFFFFFF;
  EXPECT_EQ(block.WriteDecompressedBuffer(nullptr, 0, 0, 9), -1);
  EXPECT_EQ(block.WriteDecompressedBuffer(&cursor, 0, 0, 9), -1);
  cursor = bytes;
  EXPECT_EQ(block.WriteDecompressedBuffer(&cursor, kLowest, kHuge, kLowest), 0);
  EXPECT_EQ(block.WriteDecompressedBuffer(&cursor, kHuge, kLowest, kHuge), 0);
  EXPECT_EQ(cursor, bytes) << "nothing to copy";

  // A block that held a chunk and then compresses holds none.
  CurrentLibraryState().compressor->ResetCompressionHistory();
  char room[256];
  EXPECT_EQ(block.Compress(bytes, 64, room, &number, nullptr, 0), 0);
  EXPECT_EQ(block.WriteDecompressedBuffer(&cursor, 0, 0, 50), 0);
  EXPECT_EQ(cursor, bytes);
}

TEST(Misuse, FileBlock) {
  CapsuleFile closed;
  CapsulePartition partition(closed);
  CapsuleFileBlock block(nullptr, partition);
  char history[8] = {};
  int length = kHuge;
  ExpectAll({
      {"no counter", [&] { return block.WriteDirEntry(kFat, "x", 0, 0, nullptr); }, -1},
      {"zero entry nowhere", [&] { return block.WriteDirEntry(kFat, nullptr, 0, 0, &length); }, -1},
      {"null path", [&] { return block.ReadAndChunk(nullptr); }, -1},
      {"no total", [&] { return block.WriteFile(0, 0, nullptr, 0, nullptr); }, -1},
      {"no stream", [&] { return block.StreamFile(nullptr, 0, 0, &length, 9); }, -1},
      {"no place", [&] { return block.Read(kNtfs, 0, 0, nullptr, closed, nullptr); }, -1},
      {"read closed", [&] { return block.Read(kFat, 0, -1, &length, closed, nullptr); }, -1},
      {"no blocks", [&] { return block.ReadDataBlocks(-1, kLowest); }, 1},
      {"no image", [&] { return block.ReadNTFSDataBlocks(nullptr, &block); }, 0},
      {"no block", [&] { return block.ReadNTFSDataBlocks(&closed, nullptr); }, 0},
      {"resident nowhere", [&] { return block.IsResidentData(nullptr); }, 1},
      {"reset too early", [&] { return block.ResetHistoryBuffer(); }, -1},
      {"null history", [&] { return block.SetUpHistoryBuffer(nullptr, 8); }, -1},
      {"negative history", [&] { return block.SetUpHistoryBuffer(history, -8); }, -1},
      {"history", [&] { return block.SetUpHistoryBuffer(history, 8); }, 0},
      {"history again", [&] { return block.SetUpHistoryBuffer(history, 8); }, -1},
      {"header", [&] { return block.IsHeaderCreated(kLowest); }, 0},
      {"no length", [&] { return block.DecompressFile(&closed, 0, nullptr); }, -1},
      {"no file", [&] { return block.DecompressFile(nullptr, 0, &length); }, -1},
      {"length then", [&] { return length; }, -1},
      {"blocks of no file", [&] { return block.DecompressFileBlocks(nullptr, 0, 0); }, -1},
      {"huge", [&] { return block.DecompressFileBlocks(&closed, kHuge, kHuge); }, -1},
      {"negative", [&] { return block.DecompressFileBlocks(&closed, kLowest, -1); }, -1},
      {"null path set", [&] { return Done([&] { block.SetFilePath(nullptr); }); }, 0},
      {"no child",
       [&] {
         return Done([&] { (block.InsertFileBlock(nullptr), block.InsertFileBlock(&block)); });
       },
       0},
      {"children", [&] { return block.FileList().GetCount(); }, 0},
      {"closed twice", [&] { return Done([&] { (block.Close(), block.Close()); }); }, 0},
  });
}

TEST(Misuse, Partition) {
  CapsuleFile closed;
  CapsulePartition partition(closed);
  int written = 0;
  ExpectAll({
      {"closed file", [&] { return partition.WritePartitionHeader(0, 0); }, -1},
      {"negative place", [&] { return partition.WritePartitionHeader(1, -1); }, -1},
      {"huge place", [&] { return partition.WritePartitionTrailer(1, kHuge); }, -1},
      {"null area",
       [&] { return partition.IsPartitionType(nullptr, CapsulePartition::PartitionFat); }, 0},
      {"null path", [&] { return Done([&] { partition.SetHierarchyLevel(nullptr); }); }, 0},
      {"its level", [&] { return partition.GetHierarchyLevel(); }, 1},
      {"null folder", [&] { return partition.WriteDirectories(0, nullptr, 0, &written); }, -1},
      {"no counter", [&] { return partition.WriteDirectories(0, "x", 0, nullptr); }, -1},
      {"null file", [&] { return partition.WriteFile(0, nullptr, 0, &written, 9); }, -1},
      {"no total", [&] { return partition.WriteFile(0, "x", 0, nullptr, kLowest); }, -1},
      {"read closed", [&] { return partition.Read(kFat, 0, 0, nullptr); }, -1},
      {"read nowhere", [&] { return partition.Read(kNtfs, -1, kLowest, nullptr); }, -1},
      {"blocks to null", [&] { return partition.ReadDataBlocks(0, 0, nullptr); }, -1},
      {"blocks nowhere", [&] { return partition.ReadDataBlocks(0, kLowest, &written); }, 0},
      {"null snapshot", [&] { return partition.HistorySnapshot(nullptr, 9) == nullptr; }, 1},
  });
  partition.GetFileBlocks().Append(nullptr);
  partition.SetUpHistoryBuffer();
  EXPECT_EQ(partition.SetupDirectoryEntry(partition.GetFileBlocks()), nullptr);
}

TEST(Misuse, DataBlocksOfAnotherKindEndTheRun) {
  const test::TempDir dir;
  // Begins like a data block, but is no record of an NTFS section.
  test::WriteFile(dir / "image", Hex("03 00 09 00 00 00 00 00") + test::Zeros(100));
  OpenImage image(dir / "image");
  class Section : public CapsulePartition {
   public:
    explicit Section(CapsuleFile& file) : CapsulePartition(file) {}
  } section(image.File());
  section.Read(kNtfs, 0, 0, nullptr);
  int end = 0;
  EXPECT_EQ(section.ReadDataBlocks(image.Descriptor(), 0, &end), 0);
  EXPECT_EQ(end, 0);
}

TEST(Misuse, SectionsAreReadOnce) {
  test::ImageMaker maker(false);
  maker.BeginSection();
  maker.File("A          ", 0);
  maker.EndSection();
  const test::TempDir dir;
  test::WriteFile(dir / "image", maker.Finish());
  OpenImage image(dir / "image");
  ASSERT_EQ(image.Read(), 0);
  ImageIndex* index = ImageIndex::GetCurrentIndexInstance();
  index->ReadIndex();
  EXPECT_EQ(index->GetNextFileOffset(), -1) << "what was handed out stays so";
  CapsulePartition* section = image.Partition(0);
  EXPECT_EQ(section->Read(kFat, image.Descriptor(), 7560, nullptr), -1);
  EXPECT_EQ(section->GetFileBlocks().GetCount(), 1);
  EXPECT_EQ(image.File().CreateCapsuleFile(nullptr), -1) << "and the reader is gone";
  EXPECT_EQ(image.Read(), -1);
  EXPECT_EQ(image.File().GetImageFileHeader(), nullptr);
}

// A block that is read again at another place is the file there.
TEST(Misuse, FileBlocksAreReadAnew) {
  test::ImageMaker maker(false);
  maker.BeginSection();
  const int first = static_cast<int>(maker.Here());
  maker.File("A          ", 600);
  maker.Stored(std::string(600, 'a'));
  const int second = static_cast<int>(maker.Here());
  maker.File("B          ", 300);
  maker.Stored(std::string(300, 'b'));
  maker.EndSection();
  const test::TempDir dir;
  test::WriteFile(dir / "image", maker.Finish());
  OpenImage image(dir / "image");
  ASSERT_EQ(image.Read(), 0);
  CapsuleFileBlock block(nullptr, *image.Partition(0));
  const auto readAt = [&](int offset) {
    int end = offset;
    EXPECT_EQ(block.Read(kFat, image.Descriptor(), offset, &end, image.File(), nullptr), 0);
    return test::ExtractAll(image.File(), block);
  };
  EXPECT_EQ(readAt(first), std::string(600, 'a'));
  EXPECT_EQ(readAt(second), std::string(300, 'b'));
  block.Close();
  int length = 10;
  EXPECT_EQ(block.DecompressFile(&image.File(), 0, &length), 0);
  EXPECT_EQ(length, 0) << "no data blocks, no bytes";
}

TEST(Misuse, CapsuleFile) {
  SourceTree tree;
  const std::string file = tree.AddFile("a.txt", "text");
  const std::string image = tree.Beside("image");
  CapsuleFile writer;
  CapsuleFile missing(static_cast<const char*>(nullptr));
  ExpectAll({
      {"null path", [&] { return missing.GetLastError() == EFAULT; }, 1},
      {"read unopened", [&] { return missing.ReadImage(0); }, -1},
      {"close unopened", [&] { return missing.CloseImageFileHandle(); }, 0},
      {"null directory", [&] { return missing.GetDirectory(nullptr) == nullptr; }, 1},
      {"compressed", [&] { return missing.IsCompressed(); }, 0},
      {"sector", [&] { return missing.IsPartitionSector(kLowest); }, 1},
      {"null image", [&] { return writer.CreateCapsuleFile(nullptr); }, -1},
      {"header of nothing", [&] { return writer.WriteImageFileHeader("x"); }, -1},
      {"insert into nothing", [&] { return writer.InsertFile(file.c_str(), 0); }, -1},
      {"close nothing", [&] { return writer.CloseImageFile(); }, -1},
      {"create", [&] { return writer.CreateCapsuleFile(image.c_str()); }, 0},
      {"level", [&] { return writer.SetCompressionLevel(kHuge); }, -1},
      {"level too", [&] { return writer.SetCompressionLevel(kLowest); }, -1},
      {"insert before header", [&] { return writer.InsertFile(file.c_str(), 0); }, -1},
      {"partition before header", [&] { return writer.BeginPartition(0); }, -1},
      {"null version", [&] { return writer.WriteImageFileHeader(nullptr); }, -1},
      {"header", [&] { return writer.WriteImageFileHeader("Capsulate"); }, 0},
      {"read a writer", [&] { return writer.ReadImage(0); }, -1},
      {"null insertion", [&] { return writer.InsertFile(nullptr, 0); }, -1},
      {"negative partition", [&] { return writer.InsertFile(file.c_str(), -1); }, -1},
      {"lowest partition", [&] { return writer.BeginPartition(kLowest); }, -1},
      {"huge partition", [&] { return writer.InsertFile(file.c_str(), kHuge); }, -1},
      {"insert", [&] { return writer.InsertFile(file.c_str(), 0); }, 0},
      {"header too late", [&] { return writer.WriteImageFileHeader("x"); }, -1},
      {"null record", [&] { return writer.UpdatePartitionInfo(nullptr, 1); }, -1},
      {"slot", [&] { return writer.UpdatePartitionInfo(writer.GetCurrentPartitionPtr(), kLowest); },
       -1},
      {"slot too", [&] { return writer.UpdatePartitionInfo(writer.GetCurrentPartitionPtr(), 11); },
       -1},
      {"close", [&] { return writer.CloseImageFile(); }, 0},
      {"close again", [&] { return writer.CloseImageFile(); }, -1},
      {"insert too late", [&] { return writer.InsertFile(file.c_str(), 0); }, -1},
  });
  const std::string bytes = test::ReadFile(image);
  EXPECT_EQ(bytes.substr(0, 10), std::string("Capsulate\0", 10));

  CapsuleFile reader(image.c_str());
  ExpectAll({
      {"header over a reader", [&] { return reader.WriteImageFileHeader("x"); }, -1},
      {"insert into a reader", [&] { return reader.InsertFile(file.c_str(), 0); }, -1},
      {"close a reader", [&] { return reader.CloseImageFile(); }, -1},
      {"read", [&] { return reader.ReadImage(kHuge); }, 0},
      {"read again", [&] { return reader.ReadImage(kLowest); }, 0},
      {"no such partition", [&] { return reader.GetDirectory("7:\\") == nullptr; }, 1},
      {"close", [&] { return reader.CloseImageFileHandle(); }, 1},
      {"close again", [&] { return reader.CloseImageFileHandle(); }, 0},
      {"read closed", [&] { return reader.ReadImage(1); }, -1},
  });
  EXPECT_EQ(test::ReadFile(image), bytes);
}

TEST(Misuse, Codec) {
  unsigned char area[32] = {};
  unsigned char bytes[64] = {1, 2, 3};
  const unsigned char* source = bytes;
  unsigned char* room = bytes + 32;
  uint32_t count = 32;
  StreamCompressor compressor(0, LzsKeepHistory, 0xFFFF);
  compressor.ResetCompressionHistory();
  ExpectAll({
      {"no area", [&] { return LzsInitCompressionHistory(nullptr); }, 0},
      {"no area either", [&] { return LzsInitDecompressionHistory(nullptr); }, 0},
      {"compress nothing",
       [&] { return LzsCompress(nullptr, nullptr, nullptr, nullptr, area, 0, 0); }, 0},
      {"compress in null",
       [&] { return LzsCompress(&source, &room, &count, &count, nullptr, 0, 0); }, 0},
      {"decompress nothing",
       [&] { return LzsDecompress(nullptr, nullptr, nullptr, nullptr, area, 0); }, 0},
      {"decompress in null",
       [&] { return LzsDecompress(&source, &room, &count, &count, nullptr, 0); }, 0},
      {"null source", [&] { return compressor.CompressBuffer(nullptr, 0xFFFFFFFF, nullptr, 0); },
       0},
      {"its size", [&] { return compressor.GetCompressedSize(); }, 0},
      {"no source", [&] { return compressor.CompressBuffer(nullptr, 0, bytes, 1); }, 0},
      {"the end marker alone", [&] { return compressor.GetCompressedSize(); }, 2},
  });
}

TEST(Misuse, IndexReadsAndScrambling) {
  unsigned char bytes[8] = {1, 2, 3};
  const auto throws = [](const char* header, const char* path) {
    ImageIndex::DeleteCurrentInstance();
    ImageIndex* index = ImageIndex::Instance(header, path);
    EXPECT_EQ(index->PeekNextPartitionOffset(), -1) << "not read yet";
    try {
      index->ReadIndex();
    } catch (int thrown) {
      ImageIndex::DeleteCurrentInstance();
      ImageIndex::DeleteCurrentInstance();
      return thrown;
    }
    return -1;
  };
  const _ImageHeader header{};
  const auto* headerBytes = static_cast<const char*>(static_cast<const void*>(&header));
  ExpectAll({
      {"index of null", [&] { return throws(nullptr, CAPSULE_TEST_DATA "/images/manifest.json"); },
       0},
      {"index of no file", [&] { return throws(headerBytes, nullptr); }, 0},
      {"no index", [&] { return ImageIndex::GetCurrentIndexInstance() == nullptr; }, 1},
      {"scramble null", [&] { return HeaderScramble(nullptr, "k", 3, 0); }, 0},
      {"null key", [&] { return HeaderScramble(bytes, nullptr, 3, 4); }, 6},
      {"no length", [&] { return HeaderScramble(bytes, "k", 0, 0); }, 0},
      {"negative length", [&] { return HeaderScramble(bytes, "k", kLowest, 1); }, 0},
      {"three of four", [&] { return HeaderScramble(bytes, "k", 3, 2); }, 0},
      {"mode", [&] { return HeaderScramble(bytes, "k", 3, kHuge); }, 0},
      {"read closed", [&] { return CpsReaderLock().ReadAt(0, bytes, 8, 0); }, -1},
      {"read into null", [&] { return CpsReaderLock().ReadAt(1, nullptr, 8, -1); }, -1},
      {"read too much", [&] { return CpsReaderLock().ReadAt(1, bytes, 0xFFFFFFFF, 0); }, -1},
      {"list before", [&] { return CpsList().GetAt(-1) == nullptr; }, 1},
      {"list behind", [&] { return CpsList().GetAt(kHuge) == nullptr; }, 1},
      {"remove", [&] { return Done([&] { CpsList().RemoveAt(kLowest); }); }, 0},
      {"segment", [&] { return DirectorySupport(nullptr)[kLowest] == nullptr; }, 1},
      {"parse nothing", [&] { return Done([&] { (DirectorySupport().Parse()); }); }, 0},
      {"roots", [&] { return Done([&] { platform::SetRoot('\0', nullptr); }); }, 0},
  });
  EXPECT_EQ(bytes[0], 1);
}

}  // namespace
}  // namespace capsule
