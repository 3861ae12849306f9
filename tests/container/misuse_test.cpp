// Every exported operation out of order, twice, with null, with negative or huge numbers: the
// result that its header promises, under the sanitizers without a complaint.
#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <string>

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

TEST(Misuse, Buffer) {
  CapsuleBuffer buffer;
  unsigned char bytes[8] = {'a', 'b', 'c'};
  char memory[4] = {'1', '2', '3', '4'};
  EXPECT_EQ(buffer.Read(bytes[7]), 0);
  EXPECT_EQ(buffer[0], 0);
  EXPECT_EQ(buffer.Add(bytes, 3), 3);
  EXPECT_EQ(buffer.Add(bytes, kLowest), 0);
  EXPECT_EQ(buffer.HandleAllocation(-1), 0);
  EXPECT_EQ(buffer.AddLength(-1), 0);
  EXPECT_EQ(buffer.AddLength(kHuge), 0);
  EXPECT_EQ(buffer.Read(nullptr, 1), 0);
  EXPECT_EQ(buffer.Read(bytes, -1), 0);
  for (const int index : {-1, 2048}) EXPECT_EQ(buffer[index], 0) << index;
  buffer.RemoveByte(-1, 2);
  buffer.RemoveByte(1, -1);
  buffer.RemoveByte(kHuge, kHuge);
  EXPECT_EQ(buffer.Size(), 3);
  buffer.UseThisBuffer(nullptr, 4, 1, -1);
  EXPECT_EQ(buffer.Size(), 0);
  buffer.UseThisBuffer(memory, -4, 1, 9);
  EXPECT_EQ(buffer.AllocSize(), 0);
  buffer.UseThisBuffer(memory, 4, 1, -1);
  EXPECT_EQ(buffer.HandleAllocation(kHuge), 0);
  EXPECT_EQ(buffer.Size(), 0);
  buffer.CleanUpMemory();
  buffer.CleanUpMemory();
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
  for (const int descriptor : {0, -1}) EXPECT_EQ(entry.Write(kFat, descriptor, 0, &count), -1);
  EXPECT_EQ(entry.WriteMiniHeader(9999, 0, &count), -1);
  EXPECT_EQ(entry.WriteDirectoryEntry(kFat, 1, -1, &count), -1);
  EXPECT_EQ(entry.WriteZeroDirectoryEntry(1, kHuge, &count), -1);
  EXPECT_EQ(entry.WriteZeroDirectoryEntry(1, 0, nullptr), -1);
  EXPECT_EQ(entry.SetZeroDirEntry(-1, -1, nullptr, flag), 0);
  EXPECT_EQ(entry.Read(kFat, 0, 0, &count), -1);
  EXPECT_EQ(entry.Read(kNtfs, -1, kLowest, nullptr), -1);
  EXPECT_EQ(entry.LongFileNameProcess(32, nullptr, 0, &count), -1);
  EXPECT_EQ(entry.LongFileNameProcess(31, raw, 0, &count), -1);
  EXPECT_EQ(entry.LongFileNameProcess(32, raw, 0, nullptr), -1);
  entry.FormatLongFileName(nullptr, 255);
  entry.FileRecordtoDirectoryEntry(nullptr, 1024);
  entry.FileRecordtoDirectoryEntry(raw, -1);
  entry.PutStdInfoIntoDirEntry(nullptr);
  entry.PutFileNameIntoDirEntry(nullptr, -1);
  EXPECT_TRUE(entry.ShortName(static_cast<const char*>(nullptr)).empty());
  EXPECT_EQ(entry.GetFileName("", name, extension), 0);
  EXPECT_EQ(entry.SetFileDirectory(kFat, "x", 0, 0, &count), -1);
  EXPECT_EQ(entry.SetFileDirectory(kFat, "?:\\x", 0, 0, &count), -1);
  EXPECT_EQ(entry.GetParentFileBlockPtr(), nullptr);
  EXPECT_EQ(count, 5);
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
  const std::string data(100, 'x');
  EXPECT_EQ(block.ReadFileData(nullptr), -1);
  EXPECT_EQ(block.DeleteChunkPtr(), nullptr);
  EXPECT_EQ(block.Compress(nullptr, 1, bytes, &number, nullptr, 0), -1);
  EXPECT_EQ(block.Compress(bytes, 1, nullptr, &number, nullptr, 0), -1);
  EXPECT_EQ(block.Compress(bytes, 1, bytes, nullptr, nullptr, 0), -1);
  EXPECT_EQ(block.Compress(bytes, -1, bytes, &number, nullptr, 0), -1);
  EXPECT_EQ(block.Read(0, 0, &number), -1);
  EXPECT_EQ(ntfs.Read(0, 0, nullptr), -1);
  EXPECT_EQ(block.Decompress(nullptr, bytes), -1);
  EXPECT_EQ(block.Decompress(&closed, nullptr), -1);
  EXPECT_EQ(block.IsWithinOffset(nullptr, 0, 0, 1, &number), 0);
  EXPECT_EQ(block.IsWithinOffset(&closed, 0, 0, 1, nullptr), 0);
  block.AssignUncompressedBuffer(nullptr, 9);
  block.AssignUncompressedBuffer(test::Unsigned(data), -9);
  EXPECT_TRUE(block.Uncompressed().empty());
  block.ReadDirectoryBlock(nullptr);
  ntfs.NTFSMINIHEADERtoMINIHEADER(nullptr);
  block.ClearOutBuffers();
  block.ClearOutBuffers();
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
  EXPECT_EQ(block.WriteDirEntry(kFat, "x", 0, 0, nullptr), -1);
  EXPECT_EQ(block.WriteDirEntry(kFat, nullptr, 0, 0, &length), -1);
  EXPECT_EQ(block.ReadAndChunk(nullptr), -1);
  EXPECT_EQ(block.WriteFile(0, 0, nullptr, 0, nullptr), -1);
  EXPECT_EQ(block.StreamFile(nullptr, 0, 0, &length, 9), -1);
  EXPECT_EQ(block.Read(kNtfs, 0, 0, nullptr, closed, nullptr), -1);
  EXPECT_EQ(block.Read(kFat, 0, -1, &length, closed, nullptr), -1);
  EXPECT_TRUE(block.ReadDataBlocks(-1, kLowest));
  EXPECT_FALSE(block.ReadNTFSDataBlocks(nullptr, &block));
  EXPECT_FALSE(block.ReadNTFSDataBlocks(&closed, nullptr));
  EXPECT_TRUE(block.IsResidentData(nullptr));
  EXPECT_EQ(block.ResetHistoryBuffer(), -1);
  EXPECT_EQ(block.SetUpHistoryBuffer(nullptr, 8), -1);
  EXPECT_EQ(block.SetUpHistoryBuffer(history, -8), -1);
  EXPECT_EQ(block.IsHeaderCreated(kLowest), 0);
  EXPECT_EQ(block.DecompressFile(&closed, 0, nullptr), -1);
  EXPECT_EQ(block.DecompressFile(nullptr, 0, &length), -1);
  EXPECT_EQ(length, -1);
  EXPECT_EQ(block.DecompressFileBlocks(nullptr, 0, 0), -1);
  EXPECT_EQ(block.DecompressFileBlocks(&closed, kHuge, kHuge), -1);
  EXPECT_EQ(block.DecompressFileBlocks(&closed, kLowest, -1), -1);
  block.SetFilePath(nullptr);
  block.InsertFileBlock(nullptr);
  block.InsertFileBlock(&block);
  EXPECT_EQ(block.FileList().GetCount(), 0);
  block.Close();
  block.Close();
}

TEST(Misuse, Partition) {
  CapsuleFile closed;
  CapsulePartition partition(closed);
  int written = 0;
  EXPECT_EQ(partition.WritePartitionHeader(0, 0), -1);
  EXPECT_EQ(partition.WritePartitionHeader(1, -1), -1);
  EXPECT_EQ(partition.WritePartitionTrailer(1, kHuge), -1);
  EXPECT_EQ(partition.IsPartitionType(nullptr, CapsulePartition::PartitionFat), 0);
  partition.SetHierarchyLevel(nullptr);
  EXPECT_EQ(partition.GetHierarchyLevel(), 1);
  EXPECT_EQ(partition.WriteDirectories(0, nullptr, 0, &written), -1);
  EXPECT_EQ(partition.WriteDirectories(0, "x", 0, nullptr), -1);
  EXPECT_EQ(partition.WriteFile(0, nullptr, 0, &written, 9), -1);
  EXPECT_EQ(partition.WriteFile(0, "x", 0, nullptr, kLowest), -1);
  EXPECT_EQ(partition.Read(kFat, 0, 0, nullptr), -1);
  EXPECT_EQ(partition.Read(kNtfs, -1, kLowest, nullptr), -1);
  EXPECT_EQ(partition.ReadDataBlocks(0, 0, nullptr), -1);
  EXPECT_EQ(partition.ReadDataBlocks(0, kLowest, &written), 0);
  EXPECT_EQ(partition.HistorySnapshot(nullptr, 9), nullptr);
  partition.GetFileBlocks().Append(nullptr);
  partition.SetUpHistoryBuffer();
  EXPECT_EQ(partition.SetupDirectoryEntry(partition.GetFileBlocks()), nullptr);
}

TEST(Misuse, DataBlocksOfAnotherKindEndTheRun) {
  const test::TempDir dir;
  // Begins like a data block, but is no record of an NTFS section.
  test::WriteFile(dir / "image", Hex("03 00 09 00 00 00 00 00") + test::Zeros(100));
  OpenImage image(dir / "image");
  CapsulePartition section(image.File());
  section.Read(kNtfs, 0, 0, nullptr);
  int end = 0;
  EXPECT_EQ(section.ReadDataBlocks(image.Descriptor(), 0, &end), 0);
  EXPECT_EQ(end, 0);
}

// A section is read once, but a block that is read again at another place is the file there.
TEST(Misuse, SectionsAreReadOnceAndFileBlocksAnew) {
  const std::string contentA(600, 'a');
  const std::string contentB(300, 'b');
  test::ImageMaker maker(false);
  maker.BeginSection();
  const int first = static_cast<int>(maker.Here());
  maker.File("A          ", 600);
  maker.Stored(contentA);
  const int second = static_cast<int>(maker.Here());
  maker.File("B          ", 300);
  maker.Stored(contentB);
  maker.EndSection();
  const test::TempDir dir;
  test::WriteFile(dir / "image", maker.Finish());
  OpenImage image(dir / "image");
  ASSERT_EQ(image.Read(), 0);
  ImageIndex* index = ImageIndex::GetCurrentIndexInstance();
  index->ReadIndex();
  EXPECT_EQ(index->GetNextFileOffset(), -1) << "what was handed out stays so";
  CapsulePartition& section = *image.Partition(0);
  EXPECT_EQ(section.Read(kFat, image.Descriptor(), 7560, nullptr), -1);
  EXPECT_EQ(section.GetFileBlocks().GetCount(), 2);

  {
    CapsuleFileBlock block(nullptr, section);
    for (const auto& [offset, content] :
         {std::pair(first, contentA), std::pair(second, contentB)}) {
      int end = offset;
      EXPECT_EQ(block.Read(kFat, image.Descriptor(), offset, &end, image.File(), nullptr), 0);
      EXPECT_EQ(test::ExtractAll(image.File(), block), content);
    }
    block.Close();
    int length = 10;
    EXPECT_EQ(block.DecompressFile(&image.File(), 0, &length), 0);
    EXPECT_EQ(length, 0) << "no data blocks, no bytes";
  }
  EXPECT_EQ(image.File().CreateCapsuleFile(nullptr), -1) << "and the reader is gone";
  EXPECT_EQ(image.Read(), -1);
  EXPECT_EQ(image.File().GetImageFileHeader(), nullptr);
}

TEST(Misuse, CapsuleFile) {
  SourceTree tree;
  const std::string file = tree.AddFile("a.txt", "text");
  const std::string image = tree.Beside("image");
  CapsuleFile writer;
  CapsuleFile missing(static_cast<const char*>(nullptr));
  EXPECT_EQ(missing.GetLastError(), EFAULT);
  EXPECT_EQ(missing.ReadImage(0), -1);
  EXPECT_FALSE(missing.CloseImageFileHandle());
  EXPECT_EQ(missing.GetDirectory(nullptr), nullptr);
  EXPECT_EQ(missing.IsCompressed(), 0);
  EXPECT_EQ(missing.IsPartitionSector(kLowest), 1);
  EXPECT_EQ(writer.CreateCapsuleFile(nullptr), -1);
  EXPECT_EQ(writer.WriteImageFileHeader("x"), -1);
  EXPECT_EQ(writer.InsertFile(file.c_str(), 0), -1);
  EXPECT_EQ(writer.CloseImageFile(), -1);
  EXPECT_EQ(writer.CreateCapsuleFile(image.c_str()), 0);
  EXPECT_EQ(writer.SetCompressionLevel(kLowest), -1);
  EXPECT_EQ(writer.InsertFile(file.c_str(), 0), -1);
  EXPECT_EQ(writer.BeginPartition(0), -1);
  EXPECT_EQ(writer.WriteImageFileHeader(nullptr), -1);
  EXPECT_EQ(writer.WriteImageFileHeader("Capsulate"), 0);
  EXPECT_EQ(writer.ReadImage(0), -1);
  EXPECT_EQ(writer.BeginPartition(kLowest), -1);
  EXPECT_EQ(writer.InsertFile(file.c_str(), kHuge), -1);
  EXPECT_EQ(writer.InsertFile(file.c_str(), 0), 0);
  EXPECT_EQ(writer.WriteImageFileHeader("x"), -1);
  EXPECT_EQ(writer.UpdatePartitionInfo(nullptr, 1), -1);
  EXPECT_EQ(writer.UpdatePartitionInfo(writer.GetCurrentPartitionPtr(), kLowest), -1);
  EXPECT_EQ(writer.UpdatePartitionInfo(writer.GetCurrentPartitionPtr(), 11), -1);
  EXPECT_EQ(writer.CloseImageFile(), 0);
  EXPECT_EQ(writer.CloseImageFile(), -1);
  EXPECT_EQ(writer.InsertFile(file.c_str(), 0), -1);
  const std::string bytes = test::ReadFile(image);
  EXPECT_EQ(bytes.substr(0, 10), std::string("Capsulate\0", 10));

  CapsuleFile reader(image.c_str());
  EXPECT_EQ(reader.WriteImageFileHeader("x"), -1);
  EXPECT_EQ(reader.InsertFile(file.c_str(), 0), -1);
  EXPECT_EQ(reader.CloseImageFile(), -1);
  for (const int headerOnly : {kHuge, kLowest}) EXPECT_EQ(reader.ReadImage(headerOnly), 0);
  EXPECT_EQ(reader.GetDirectory("7:\\"), nullptr);
  EXPECT_TRUE(reader.CloseImageFileHandle());
  EXPECT_FALSE(reader.CloseImageFileHandle());
  EXPECT_EQ(reader.ReadImage(1), -1);
  EXPECT_EQ(test::ReadFile(image), bytes);
}

TEST(Misuse, ItemsOfTheCaller) {
  SourceTree tree;
  const std::string image = tree.Beside("image");
  const std::string file = tree.AddFile("a.txt", "text");
  constexpr int64_t kMost = std::numeric_limits<int64_t>::max();
  int zeros = 7;
  CapsuleFile writer;
  const auto expectRefused = [&](CapsuleFile& refusing) {
    const int before = refusing.GetWriteOffset();
    EXPECT_EQ(refusing.BeginItem("0:\\a", false, &zeros), -1);
    EXPECT_EQ(refusing.EndItem(0, 0), -1);
    EXPECT_EQ(refusing.GetWriteOffset(), before);
  };
  expectRefused(writer);
  ASSERT_EQ(writer.CreateCapsuleFile(image.c_str()), 0);
  ASSERT_EQ(writer.WriteImageFileHeader("Capsulate"), 0);
  expectRefused(writer);
  ASSERT_EQ(writer.BeginPartition(0), 0);
  const int begin = writer.GetWriteOffset();
  EXPECT_EQ(writer.BeginItem(nullptr, true, &zeros), -1);
  EXPECT_EQ(writer.BeginItem("", true, &zeros), -1);
  EXPECT_EQ(writer.BeginItem("a", false, &zeros), -1) << "a file without a directory";
  EXPECT_EQ(writer.BeginItem("0:\\a", false, nullptr), -1);
  EXPECT_EQ(zeros, 7);
  EXPECT_EQ(writer.EndItem(100, 0), -1) << "none was begun";
  EXPECT_EQ(writer.BeginItem("0:\\a", true, &zeros), 0);
  for (const int64_t bytes : {int64_t{-1}, -kMost - 1, kMost, int64_t{kHuge}}) {
    EXPECT_FALSE(writer.HasRoomFor(bytes)) << bytes;
    EXPECT_EQ(writer.EndItem(bytes, 0), -1) << bytes;
  }
  EXPECT_EQ(writer.EndItem(0, 0), 0);
  EXPECT_EQ(writer.EndItem(0, 0), -1) << "twice";
  EXPECT_EQ(writer.GetWriteOffset(), begin);
  EXPECT_EQ(writer.BeginItem("0:\\a\\b", false, &zeros), 0);
  EXPECT_EQ(zeros, 0);
  ASSERT_EQ(writer.BeginPartition(1), 0);
  EXPECT_EQ(writer.EndItem(0, 0), -1) << "begun in the partition before";
  EXPECT_EQ(writer.BeginItem("1:\\b", false, &zeros), 0);
  ASSERT_EQ(writer.InsertFile(file.c_str(), 1), 0);
  EXPECT_EQ(writer.EndItem(0, 0), -1) << "its place is taken";
  EXPECT_EQ(writer.BeginItem("1:\\b", true, &zeros), 0);
  EXPECT_EQ(writer.CloseImageFile(), 0);
  expectRefused(writer);
  CapsuleFile reader(image.c_str());
  EXPECT_EQ(reader.ReadImage(1), 0);
  expectRefused(reader);
  EXPECT_TRUE(reader.CloseImageFileHandle());
  EXPECT_EQ(writer.CreateCapsuleFile(image.c_str()), 0);
  expectRefused(writer);
}

TEST(Misuse, Codec) {
  unsigned char area[32] = {};
  unsigned char bytes[64] = {1, 2, 3};
  const unsigned char* source = bytes;
  unsigned char* room = bytes + 32;
  uint32_t count = 32;
  StreamCompressor compressor(0, LzsKeepHistory, 0xFFFF);
  compressor.ResetCompressionHistory();
  EXPECT_EQ(LzsInitCompressionHistory(nullptr), 0);
  EXPECT_EQ(LzsInitDecompressionHistory(nullptr), 0);
  EXPECT_EQ(LzsCompress(nullptr, nullptr, nullptr, nullptr, area, 0, 0), 0);
  EXPECT_EQ(LzsCompress(&source, &room, &count, &count, nullptr, 0, 0), 0);
  EXPECT_EQ(LzsDecompress(nullptr, nullptr, nullptr, nullptr, area, 0), 0);
  EXPECT_EQ(LzsDecompress(&source, &room, &count, &count, nullptr, 0), 0);
  EXPECT_EQ(compressor.CompressBuffer(nullptr, 0xFFFFFFFF, nullptr, 0), 0);
  EXPECT_EQ(compressor.GetCompressedSize(), 0U);
  EXPECT_EQ(compressor.CompressBuffer(nullptr, 0, bytes, 1), 0);
  EXPECT_EQ(compressor.GetCompressedSize(), 2U);
}

TEST(Misuse, IndexReadsAndScrambling) {
  unsigned char bytes[8] = {1, 2, 3};
  const std::string zeros = test::Zeros(7560);
  const std::pair<const char*, const char*> indexes[] = {
      {nullptr, CAPSULE_TEST_DATA "/images/manifest.json"}, {zeros.data(), nullptr}};
  for (const auto& [header, path] : indexes) {
    ImageIndex::DeleteCurrentInstance();
    ImageIndex* index = ImageIndex::Instance(header, path);
    EXPECT_EQ(index->PeekNextPartitionOffset(), -1) << "not read yet";
    int thrown = -1;
    try {
      index->ReadIndex();
    } catch (int value) {
      thrown = value;
    }
    EXPECT_EQ(thrown, 0);
  }
  ImageIndex::DeleteCurrentInstance();
  ImageIndex::DeleteCurrentInstance();
  EXPECT_EQ(ImageIndex::GetCurrentIndexInstance(), nullptr);
  EXPECT_EQ(HeaderScramble(nullptr, "k", 3, 0), 0U);
  EXPECT_EQ(HeaderScramble(bytes, nullptr, 3, 4), 6U);
  EXPECT_EQ(CpsReaderLock().ReadAt(0, bytes, 8, 0), -1);
  EXPECT_EQ(CpsReaderLock().ReadAt(1, nullptr, 8, -1), -1);
  EXPECT_EQ(CpsList().GetAt(-1), nullptr);
  EXPECT_EQ(CpsList().GetAt(kHuge), nullptr);
  CpsList().RemoveAt(kLowest);
  EXPECT_EQ(DirectorySupport(nullptr)[kLowest], nullptr);
  DirectorySupport().Parse();
  platform::SetRoot('\0', nullptr);
  EXPECT_EQ(bytes[0], 1);
}

}  // namespace
}  // namespace capsule
