// Every allocation of every operation fails in turn: the operation says so, nothing ends the
// process, and the same operation gives the right bytes afterwards.
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "capsule/blocks/file_block.h"
#include "capsule/platform/scoped_descriptor.h"
#include "tests/blocks/made_image.h"
#include "tests/support/failing_allocations.h"
#include "tests/support/source_tree.h"

namespace capsule {
namespace {

using test::FailEachAllocation;
using test::HasAllocationFailed;
using test::MadeImage;

constexpr auto kFat32 = CapsuleDirectoryEntry::DirTypeFat32;

struct Sample {
  const char* what;
  std::string content;
  std::function<MadeImage()> make;
};

std::vector<Sample> Samples() {
  const std::string text = test::RandomText(20000, 1);
  const std::string small = text.substr(0, 300);
  const auto size = static_cast<uint32_t>(text.size());
  return {
      {"compressed", text, [=] { return MadeImage(size, text); }},
      {"stored", text, [=] { return MadeImage(false, size, [&](auto& m) { m.Stored(text); }); }},
      {"NTFS", text, [=] { return MadeImage(test::NtfsImage(text, false)); }},
      {"in its FILE record", small, [=] { return MadeImage(test::NtfsImage(small, true)); }}};
}

TEST(OutOfMemory, ExtractingFailsAndIsRightTheNextTime) {
  for (const Sample& sample : Samples()) {
    const int size = static_cast<int>(sample.content.size());
    const int half = size / 2;
    const int failed = FailEachAllocation([&](const auto& failing) {
      MadeImage image = sample.make();
      CapsuleFileBlock& block = image.Block();
      int length = half;
      const int result =
          failing([&] { return block.DecompressFile(&image.File(), size - half, &length); });
      if (result == 0) {
        EXPECT_EQ(length, half) << sample.what;
        const char* bytes = static_cast<const char*>(block.GetPtrToDecompressedFile());
        EXPECT_TRUE(std::string(bytes, half) == sample.content.substr(size - half));
      } else {
        EXPECT_EQ(result, -1);
        EXPECT_TRUE(HasAllocationFailed());
        EXPECT_EQ(block.GetPtrToDecompressedFile(), nullptr);
      }
      for (const int start : {size - half, 0, 1}) {
        EXPECT_TRUE(image.Range(start, size) == sample.content.substr(start)) << sample.what;
      }
    });
    EXPECT_GT(failed, 3) << sample.what;
  }
}

TEST(OutOfMemory, PreparingAndReadingFailAndAreRightTheNextTime) {
  for (const Sample& sample : Samples()) {
    using Operation = std::function<bool(MadeImage&)>;  // whether it succeeded
    const int count = sample.make().ChunkCount();
    const Operation operations[] = {
        [count](MadeImage& image) { return image.ChunkCount() == count; },
        [](MadeImage& image) {
          CapsuleFileBlock& block = image.Block();
          return block.GetDirectoryType() == CapsuleDirectoryEntry::DirTypeNtfs
                     ? block.ReadNTFSDataBlocks(&image.File(), &block)
                     : block.ReadDataBlocks(image.File().GetImageFileHandle(),
                                            block.GetDUPDATAOffset());
        }};
    for (const Operation& operation : operations) {
      FailEachAllocation([&](const auto& failing) {
        MadeImage image = sample.make();
        const bool done = failing([&] { return operation(image); });
        EXPECT_NE(done, HasAllocationFailed()) << sample.what;
        EXPECT_TRUE(operation(image)) << sample.what;
        EXPECT_EQ(image.ChunkCount(), count);
        EXPECT_TRUE(test::ExtractAll(image.File(), image.Block()) == sample.content);
      });
    }
  }
}

TEST(OutOfMemory, OpeningFailsAndIsRightTheNextTime) {
  for (const Sample& sample : Samples()) {
    const int failed = FailEachAllocation([&](const auto& failing) {
      MadeImage image = sample.make();
      test::OpenImage again(image.Path());
      const int result = failing([&] { return again.Read(); });
      EXPECT_EQ(result != 0, HasAllocationFailed()) << sample.what;
      test::OpenImage third(image.Path());
      ASSERT_EQ(third.Read(), 0);
      CapsuleFileBlock& block = *test::BlockAt(third.Partition(0)->GetFileBlocks(), 0);
      EXPECT_TRUE(test::ExtractAll(third.File(), block) == sample.content);
    });
    EXPECT_GT(failed, 5) << sample.what;
  }
}

// A folder with two files, without their histories.
TEST(OutOfMemory, HistoriesAreSetUpForAllOrNone) {
  CapsuleFile closed;
  std::string history(LzsSizeOfDecompressionHistory(), 'h');
  const auto size = static_cast<int>(history.size());
  const int failed = FailEachAllocation([&](const auto& failing) {
    CapsulePartition partition(closed);
    CapsuleFileBlock folder(nullptr, partition);
    for (int i = 0; i < 2; ++i) {
      folder.InsertFileBlock(new CapsuleFileBlock(&folder, partition));
    }
    const auto setUp = [&] { return folder.SetUpDecompressHeader(closed, history.data(), size); };
    const int result = failing(setUp);
    EXPECT_EQ(result, HasAllocationFailed() ? -1 : 0);
    const int hadOne = HasAllocationFailed() ? 0 : -1;
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(test::BlockAt(folder.FileList(), i)->ResetHistoryBuffer(), hadOne == 0 ? -1 : 0);
    }
    EXPECT_EQ(setUp(), hadOne);
  });
  EXPECT_GT(failed, 2);
}

TEST(OutOfMemory, ABlockThatCannotBecomeAnotherStaysAsItIs) {
  const int failed = FailEachAllocation([&](const auto& failing) {
    CapsuleFileDataBlock block(kFat32, 0);
    CapsuleFileDataBlock other(kFat32, 0);
    block.AssignUncompressedBuffer(test::Unsigned("before"), 6);
    other.AssignUncompressedBuffer(test::Unsigned("and after"), 9);
    bool thrown = false;
    failing([&] {
      try {
        block = other;
      } catch (const std::bad_alloc&) {
        thrown = true;
      }
      return 0;
    });
    EXPECT_EQ(thrown, HasAllocationFailed());
    const auto chunk = block.Uncompressed();
    EXPECT_EQ(std::string(chunk.begin(), chunk.end()), thrown ? "before" : "and after");
  });
  EXPECT_EQ(failed, 1);
}

// Deep and broad: a block that is destroyed asks for nothing.
TEST(OutOfMemory, ATreeIsClosedWithoutMemory) {
  CapsuleFile closed;
  CapsulePartition partition(closed);
  auto root = std::make_unique<CapsuleFileBlock>(nullptr, partition);
  CapsuleFileBlock* deepest = root.get();
  for (int i = 0; i < 1000; ++i) {
    auto* child = new CapsuleFileBlock(deepest, partition);
    deepest->InsertFileBlock(child);
    deepest->InsertFileBlock(new CapsuleFileBlock(deepest, partition));
    deepest = child;
  }
  EXPECT_EQ(FailEachAllocation([&](const auto& failing) {
              failing([&] {
                root.reset();
                return 0;
              });
            }),
            0);
}

class OutOfMemoryWriting : public testing::Test {
 protected:
  OutOfMemoryWriting() {
    m_tree.AddFile("A_LONG_NAME.TXT", m_content);
    m_tree.AddDirectory("FOLDER");
  }

  // The records of the file as they are written by `write`; none when that failed.
  using Write = std::function<int(CapsuleFileBlock&, int fd, int* total)>;
  std::optional<std::string> Records(const Write& write) {
    const std::string target = m_tree.Beside("records");
    std::filesystem::remove(target);
    const platform::ScopedDescriptor image(platform::OpenForWriting(target.c_str()));
    m_tree.State().compressor->ResetCompressionHistory();
    CapsuleFileBlock block(nullptr, m_partition);
    int total = 0;
    const int result = write(block, image.Get(), &total);
    if (result == 0) return test::ReadFile(target);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(total, 0);
    return std::nullopt;
  }

  static constexpr const char* kPath = "C:\\A_LONG_NAME.TXT";
  const std::string m_content = test::RandomText(20000, 2);
  test::SourceTree m_tree;
  CapsuleFile m_file;
  CapsulePartition m_partition{m_file};
};

TEST_F(OutOfMemoryWriting, RecordsAreWrittenOrAreNot) {
  const auto chunked = [](CapsuleFileBlock& block, int fd, int* total) {
    const bool isRead = block.ReadAndChunk(kPath) == 0;
    return isRead ? block.WriteFile(fd, 0, total, 5, nullptr) : -1;
  };
  const auto streamed = [](CapsuleFileBlock& block, int fd, int* total) {
    block.GetDirectoryEntry().EntryFor(kFat32).FileSize = 20000;
    return block.StreamFile(kPath, fd, 0, total, 5);
  };
  const auto entry = [](CapsuleFileBlock& block, int fd, int* total) {
    return block.WriteDirEntry(kFat32, kPath, fd, 0, total);
  };
  for (const Write& write : {Write(chunked), Write(streamed), Write(entry)}) {
    const auto whole = Records(write);
    ASSERT_TRUE(whole.has_value());
    const int failed = FailEachAllocation([&](const auto& failing) {
      const auto records = Records([&](CapsuleFileBlock& block, int fd, int* total) {
        return failing([&] { return write(block, fd, total); });
      });
      EXPECT_TRUE(records.has_value() ? *records == *whole : HasAllocationFailed());
      EXPECT_TRUE(Records(write) == whole);
    });
    EXPECT_GT(failed, 0);
  }
}

TEST_F(OutOfMemoryWriting, EachStepOfAnImageSucceedsTheNextTime) {
  using Step = std::function<int(CapsuleFile&)>;
  const std::string target = m_tree.Beside("image");
  const Step steps[] = {[&](CapsuleFile& image) { return image.CreateCapsuleFile(target.c_str()); },
                        [](CapsuleFile& image) { return image.WriteImageFileHeader("v"); },
                        [](CapsuleFile& image) { return image.InsertFile(kPath, 0); },
                        [](CapsuleFile& image) { return image.InsertFile("C:\\FOLDER", 0); },
                        [](CapsuleFile& image) { return image.CloseImageFile(); }};
  std::string whole;
  for (const Step& mayFail : steps) {
    FailEachAllocation([&](const auto& failing) {
      std::filesystem::remove(target);
      m_tree.State().previousInsertDir.clear();
      CapsuleFile image;
      for (const Step& step : steps) {
        const bool fails = &step == &mayFail;
        const int result = fails ? failing([&] { return step(image); }) : step(image);
        if (result == 0) continue;
        ASSERT_EQ(result, -1);
        ASSERT_TRUE(HasAllocationFailed());
        if (&step == &steps[3]) {  // its block stays: the folder counts as inserted
          image.CloseImageFileHandle();
          return;
        }
        ASSERT_EQ(step(image), 0);
      }
      // The sectors of an insertion that failed count in the header.
      const std::string bytes = test::ReadFile(target).substr(7560);
      if (whole.empty()) whole = bytes;
      EXPECT_TRUE(bytes == whole);
    });
  }
}

TEST_F(OutOfMemoryWriting, AChunkIsTheFirstOfItsFileAfterAFailure) {
  const int failed = FailEachAllocation([&](const auto& failing) {
    CapsuleFileDataBlock block(kFat32, 0);
    EXPECT_EQ(block.ReadFileData(kPath), 8192);
    const int result = failing([&] { return block.ReadFileData(kPath); });
    EXPECT_EQ(result, HasAllocationFailed() ? -1 : 8192);
    EXPECT_EQ(block.GetChunkPtr() == nullptr, HasAllocationFailed());
    if (!HasAllocationFailed()) {
      EXPECT_EQ(block.ReadFileData(kPath), 0);
    }
    EXPECT_EQ(block.ReadFileData(kPath), 8192);
    EXPECT_EQ(std::string(block.GetChunkPtr(), 8192), m_content.substr(0, 8192));
    m_tree.State().chunkReadPosition = 0;
  });
  EXPECT_GT(failed, 0);
}

}  // namespace
}  // namespace capsule
