#include "capsule/container/image_index.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "capsule/container/header_format.h"
#include "capsule/container/index_format.h"
#include "capsule/state/library_state.h"
#include "tests/support/temp_dir.h"

namespace capsule {
namespace {

constexpr uint32_t kIndexOffset = 10000;
constexpr int32_t kOutOfRange = INT32_MIN;

using Offsets = std::vector<int>;

// What an index hands out, up to `count` offsets a list.
struct Walk {
  Offsets partitions;
  Offsets files;
};

std::vector<unsigned char> Record(uint8_t type, const std::string& name = "", uint32_t offset = 0,
                                  uint32_t length = 0) {
  std::vector<unsigned char> bytes;
  AppendIndexRecord({type, name, offset, length}, &bytes);
  return bytes;
}

std::vector<unsigned char> Concat(const std::vector<std::vector<unsigned char>>& parts) {
  std::vector<unsigned char> all;
  for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

const std::vector<unsigned char> kSection = Record(5, "", 7560, 2056);
const std::vector<unsigned char> kLastFile = Record(2, "a.txt", 9616, 384);

// Walks an index of `records` at kIndexOffset and takes `count` offsets of either kind.
Walk WalkRecords(const std::vector<unsigned char>& records, int count) {
  const test::TempDir dir;
  const std::string path = dir / "image";
  std::string image(kIndexOffset + kIndexPreamble, '\xEE');
  image.append(records.begin(), records.end());
  test::WriteFile(path, image);
  std::string header(kHeaderSize, '\0');
  header.replace(kIndexOffsetOffset, 2, "\x10\x27");  // kIndexOffset

  LibraryState state;
  const ScopedLibraryState scope(state);
  ImageIndex* index = ImageIndex::Instance(header.data(), path.c_str());
  index->ReadIndex();
  Walk walk;
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(index->PeekNextPartitionOffset(), index->PeekNextPartitionOffset());
    walk.partitions.push_back(index->GetNextPartitionOffset());
    walk.files.push_back(index->GetNextFileOffset());
  }
  EXPECT_EQ(index->GetImageFilePath(), header.data());
  return walk;  // the index goes with its state
}

TEST(ImageIndexTest, TheWalkEndsWithTheRecordOrNoteThatReachesTheIndex) {
  const Walk walk = WalkRecords(Concat({kSection, kLastFile, Record(2, "", 1, 1)}), 3);
  EXPECT_EQ(walk.partitions, (Offsets{7560, -1, -1}));
  EXPECT_EQ(walk.files, (Offsets{9616, -1, -1}));
  const auto note = Concat({kSection, Record(6, "", 9000, 1000), kLastFile});
  EXPECT_EQ(WalkRecords(note, 2).files, (Offsets{-1, -1}));
}

TEST(ImageIndexTest, NotesBodilessRecordsAndLongNamesArePassedOver) {
  const auto records = Concat({Record(4), kSection, Record(6, "note", 1, 2), Record(0),
                               Record(3, std::string(300, 'n'), 8000, 10),
                               Record(2, std::string(65535, 'm'), 8010, 10), Record(200),
                               Record(3, std::string(65535, 'o'), 8020, 10), kLastFile});
  const Walk walk = WalkRecords(records, 5);
  EXPECT_EQ(walk.partitions, (Offsets{7560, -1, -1, -1, -1}));
  EXPECT_EQ(walk.files, (Offsets{8000, 8010, 8020, 9616, -1}));
}

TEST(ImageIndexTest, GroupMarksCostNoStackAndChangeNothingBefore) {
  const std::vector<unsigned char> marks(2'000'000, kIndexGroupMark);
  const Walk walk = WalkRecords(Concat({marks, kSection, {1, 1}, kLastFile}), 4);
  EXPECT_EQ(walk.partitions, (Offsets{7560, -1, -1, -1}));
  EXPECT_EQ(walk.files, (Offsets{9616, -1, -1, -1}));
}

TEST(ImageIndexTest, AnIndexCutAnywhereEndsThere) {
  const auto records = Concat({kSection, Record(2, "first", 9000, 1), kLastFile});
  const size_t first = kSection.size();
  const size_t second = records.size() - kLastFile.size();
  for (size_t size = 0; size < records.size(); ++size) {
    const Walk walk = WalkRecords({records.begin(), records.begin() + static_cast<long>(size)}, 2);
    EXPECT_EQ(walk.partitions, (Offsets{size >= first ? 7560 : -1, -1})) << size;
    EXPECT_EQ(walk.files, (Offsets{size >= second ? 9000 : -1, -1})) << size;
  }
}

TEST(ImageIndexTest, OffsetsThatNoImageHasAreNeitherWrappedNorTakenForTheEnd) {
  const auto greatest = Record(5, "", 0x7FFFFFFF, 0x80000001);
  EXPECT_EQ(WalkRecords(greatest, 1).partitions, (Offsets{0x7FFFFFFF}));
  for (const uint32_t offset : {0x80000000U, 0xFFFFFFFFU}) {
    const auto records = Concat({kSection, Record(2, "", offset, 0)});
    EXPECT_EQ(WalkRecords(records, 2).files, (Offsets{kOutOfRange, -1}));
  }
  // offset + length is more than 32 bits: the end is reached, not wrapped around.
  const auto wrapping = Concat({Record(2, "", 0xFFFFFFF0, 0x20), kLastFile});
  EXPECT_EQ(WalkRecords(wrapping, 2).files, (Offsets{kOutOfRange, -1}));
}

TEST(ImageIndexTest, ThereIsOneCurrentIndex) {
  LibraryState state;
  const ScopedLibraryState scope(state);
  EXPECT_EQ(ImageIndex::GetCurrentIndexInstance(), nullptr);
  const std::string header(kHeaderSize, '\0');
  ImageIndex* index = ImageIndex::Instance(header.data(), "one");
  EXPECT_EQ(ImageIndex::Instance(nullptr, "two"), index);
  EXPECT_EQ(ImageIndex::GetCurrentIndexInstance(), index);
  ImageIndex::DeleteCurrentInstance();
  EXPECT_EQ(ImageIndex::GetCurrentIndexInstance(), nullptr);
}

}  // namespace
}  // namespace capsule
