#include "capsule/host/index_writer.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "capsule/container/index_format.h"
#include "capsule/host/error.h"
#include "capsule/platform/little_endian.h"
#include "tests/host/small_image.h"
#include "tests/support/damage_seed.h"
#include "tests/support/foreign_image.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

std::string Le(uint64_t value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

std::string Record(int type, const std::string& name, uint32_t offset, uint32_t length) {
  return Le(static_cast<uint64_t>(type), 1) + Le(name.size(), 2) + name + Le(offset, 4) +
         Le(length, 4);
}

std::string Checksum(const std::string& image, uint32_t offset, uint32_t length) {
  char name[32];
  std::snprintf(name, sizeof name, "xxh3=%016llx",
                static_cast<unsigned long long>(XXH3_64bits(image.data() + offset, length)));
  return Record(6, name, offset, length);
}

// Three partition numbers, the middle one skipped.
test::SmallImage TwoSections() {
  test::SmallImage image;
  image.BeginSection();
  image.Folder("A          ");
  image.Entry("F       TXT", 0x20);
  image.EndSection();
  image.BeginSection();
  image.Close();
  image.Entry("G       TXT", 0x20, 3);
  image.Data(512, true);
  image.EndSection();
  image.SetPartitionCount(3);
  return image;
}

TEST(IndexWriter, WritesEveryByteAsDescribed) {
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  const std::string before = TwoSections().Bytes();
  test::WriteFile(path, before);
  const IndexReport report = IndexWriter(path).Write();

  std::string expected = before;
  const auto end = static_cast<uint32_t>(before.size());
  expected.replace(kIndexOffsetOffset, 4, Le(end, 4));
  expected[kPartitionCountOffset] = 2;
  const uint32_t a = 7560 + 2056, first = a + 160, second = first + 1544, g = second + 2096;
  ASSERT_EQ(end, g + 40 + 520 + 1544);
  const std::string records = Checksum(expected, 0, 7560) + Record(5, "", 7560, 2056) +
                              Checksum(expected, 7560, first - 7560) + Record(3, "A", a, 40) +
                              Record(3, "", a + 40, 40) + Record(3, "", a + 80, 40) +
                              Record(2, "A/F.TXT", a + 120, 40) + Checksum(expected, a + 120, 40) +
                              Record(3, "", second - 40, 40) + Record(5, "", second, 2056) +
                              Checksum(expected, second, g + 560 - second) +
                              Record(3, "", second + 2056, 40) + Record(2, "G.TXT", g, 560) +
                              Checksum(expected, g, 560) + Record(3, "", end - 40, 40);
  expected += "CI1" + Le(XXH32(records.data(), records.size(), 0), 4) + records;
  EXPECT_EQ(test::ReadFile(path), expected);
  EXPECT_EQ(report.sections, 2u);
  EXPECT_EQ(report.directories, 1u);
  EXPECT_EQ(report.files, 2u);
  EXPECT_EQ(report.indexOffset, end);
  EXPECT_EQ(report.imageBytes, expected.size());
}

TEST(IndexWriter, RebuildsTheSameBytesAndCutsWhatIsBehind) {
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  test::WriteFile(path, TwoSections().Bytes() + std::string(5000, 'o'));
  IndexWriter(path).Write();
  const std::string complete = test::ReadFile(path);
  IndexWriter(path).Write();
  EXPECT_EQ(test::ReadFile(path), complete);

  std::string damaged = complete;
  damaged[complete.size() - 30] = static_cast<char>(damaged[complete.size() - 30] + 1);
  test::WriteFile(path, damaged + "more");
  IndexWriter(path).Write();
  EXPECT_EQ(test::ReadFile(path), complete);
}

// More records than the writer buffers, so that check values go to the file and to the buffer.
TEST(IndexWriter, LargeIndexesAreWrittenInPieces) {
  test::SmallImage image;
  image.BeginSection();
  constexpr int kFiles = 5000;
  for (int i = 0; i < kFiles; ++i) image.Entry("F       TXT", 0x20);
  const uint32_t trailer = image.Size();
  image.EndSection();
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  test::WriteFile(path, image.Bytes());
  const IndexReport report = IndexWriter(path).Write();
  const std::string bytes = test::ReadFile(path);
  const std::string index = bytes.substr(report.indexOffset);
  EXPECT_EQ(index.substr(0, 3), "CI1");
  EXPECT_EQ(index.substr(3, 4), Le(XXH32(index.data() + 7, index.size() - 7, 0), 4));
  EXPECT_EQ(index.substr(7 + 32 + 11, 32), Checksum(bytes, 7560, trailer - 7560));
  EXPECT_EQ(index.size(), 7u + 32 + 11 + 32 + kFiles * (11u + 5 + 32) + 11);
}

TEST(IndexWriter, DamagedImagesStayAsTheyAre) {
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  test::WriteFile(path, TwoSections().Bytes());
  IndexWriter(path).Write();
  std::string bytes = test::ReadFile(path);
  bytes[7560 + 2056] = 9;
  test::WriteFile(path, bytes);
  EXPECT_THROW(IndexWriter(path).Write(), Error);
  EXPECT_EQ(test::ReadFile(path), bytes);

  test::WriteFile(path, test::SmallImage().Bytes());
  EXPECT_THROW(IndexWriter(path).Write(), Error);
  EXPECT_THROW(IndexWriter(folder / "missing"), Error);
  EXPECT_THROW(IndexWriter(folder.Path()), Error);
}

// The header tells of other sections than there are: what it does not tell of is not cut off, and
// none gets a record that readers would not take for its own.
TEST(IndexWriter, DamagedPartitionRecordsLoseNoSection) {
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  const auto refuse = [&](const std::string& bytes) {
    test::WriteFile(path, bytes);
    EXPECT_THROW(IndexWriter(path).Write(), Error);
    EXPECT_EQ(test::ReadFile(path) == bytes, true);
  };
  std::string bytes = TwoSections().Bytes();
  bytes[kPartitionCountOffset] = 1;
  refuse(bytes);
  bytes[kPartitionCountOffset] = 3;
  bytes[kPartitionRecordsOffset + kPartitionRecordSize + 2] = 0;
  refuse(bytes);
  bytes[kPartitionRecordsOffset + 2 * kPartitionRecordSize + 2] = 0x0B;
  refuse(bytes);

  test::ForeignImage compact({.tailOffset = 900});
  compact.BeginSection(0x0B, 2);
  compact.EndSection();
  const uint32_t end = compact.Offset();
  compact.BeginSection(0, 2);
  test::Bytes finished = compact.Finish();
  platform::StoreLe32(&finished[kIndexOffsetOffset], 0);
  refuse(std::string(finished.begin(), finished.begin() + end));

  test::ForeignImage scrambled({.scrambled = true});
  scrambled.BeginSection(0x0B, 2);
  scrambled.EndSection();
  scrambled.BeginSection(0x0B, 2);
  scrambled.EndSection();
  finished = scrambled.Finish();
  finished[kPartitionCountOffset] ^= 2 ^ 1;
  refuse(std::string(finished.begin(), finished.end()));
}

// An image of holes that leaves room for 100 bytes: too few for its index.
TEST(IndexWriter, ImagesThatWouldGetTooLargeStayAsTheyAre) {
  constexpr uint64_t kMost = 0x7FFFFFFF;
  test::SmallImage image;
  image.BeginSection();
  image.Entry("F       BIN", 0x20, 0x7F000000);
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  test::WriteFile(path, image.Bytes());
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  const uint64_t trailer = kMost - 100 - kPartitionTrailerSize;
  for (uint64_t at = image.Size(); at < trailer;) {
    // The last record ends at the trailer; the one before leaves it room for a header.
    uint64_t length = std::min<uint64_t>(trailer - at - 8, 65535);
    if (trailer - at - 8 - length < 8 && trailer - at - 8 != length) length -= 8;
    file.seekp(static_cast<std::streamoff>(at));
    const bool last = at + 8 + length == trailer;
    const auto header = EncodeMiniHeader(
        {kRecordDataBlock, static_cast<uint8_t>(last ? 1 : 0), 0, static_cast<uint16_t>(length)});
    file.write(std::string(header.begin(), header.end()).data(), 8);
    at += 8 + length;
  }
  const auto end = EncodePartitionTrailer();
  file.seekp(static_cast<std::streamoff>(trailer));
  file.write(std::string(end.begin(), end.end()).data(), end.size());
  file.close();
  ASSERT_EQ(std::filesystem::file_size(path), kMost - 100);
  try {
    IndexWriter(path).Write();
    FAIL();
  } catch (const Error& error) {
    EXPECT_NE(std::string(error.what()).find("2147483647 are possible"), std::string::npos);
  }
  EXPECT_EQ(std::filesystem::file_size(path), kMost - 100);
}

// Only data of files is damaged, or the end is missing: the rest is found through a new index.
TEST(IndexWriter, IndexesWhatIsLeft) {
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  const std::string image = CAPSULE_TEST_DATA "/images/h_compact_scrambled.img";
  const test::DamageSeed seed(image);
  const auto index = [&](const std::string& bytes, size_t from) {
    test::WriteFile(path, bytes);
    const IndexReport report = IndexWriter(path).Write(DamagedSections::IndexWhatIsLeft);
    EXPECT_EQ(report.problems.size(), 1u);
    EXPECT_EQ(test::ReadFile(path).substr(kHeaderSize, bytes.size() - kHeaderSize),
              bytes.substr(kHeaderSize));
    test::Contents found = test::ReadContents(Image(path));
    for (const std::string& name :
         seed.Untouched(from, bytes.size() < from + 2 ? ~size_t{0} : from + 1)) {
      EXPECT_EQ(found[name] == seed.Whole().at(name), true) << name << ", " << from;
    }
    return report;
  };
  const std::string whole = seed.Bytes().substr(0, seed.IndexOffset());
  std::vector<uint64_t> cuts;
  for (const SectionItem& item : seed.Items()) {
    if (item.kind != SectionItem::Kind::File) continue;
    std::string bytes = whole;
    bytes[item.dataOffset + 7] = '\x7F';
    EXPECT_EQ(index(bytes, item.dataOffset + 7).problems[0].path,
              std::to_string(item.section) + ":/" + item.path);
    cuts = {item.dataOffset + 100, item.offset + item.length + 20, whole.size() - 1};
  }
  for (const uint64_t cut : cuts) index(whole.substr(0, cut), cut);

  const auto refuse = [&](std::string bytes, uint64_t at) {
    bytes[at] = '\x7F';
    test::WriteFile(path, bytes);
    EXPECT_THROW(IndexWriter(path).Write(DamagedSections::IndexWhatIsLeft), Error);
    EXPECT_EQ(test::ReadFile(path) == bytes, true);
  };
  refuse(whole, seed.Items()[1].offset);
  refuse(seed.Bytes(), seed.Items()[1].offset + 7);
  refuse(whole.substr(0, whole.size() / 2), 0);

  test::SmallImage loose;  // a "." without its folder
  loose.BeginSection();
  loose.Entry(".          ", kDirectoryAttribute);
  loose.Entry("ONE     BIN", 0x20, 512);
  loose.Data(512, true);
  loose.EndSection();
  refuse(loose.Bytes(), loose.Bytes().find("ONE     BIN") + kDirEntrySize + 7);
}

// A full disk: the image is one without an index, not one with half of it.
TEST(IndexWriter, FailedWritesLeaveAnImageWithoutIndex) {
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  const std::string before = TwoSections().Bytes();
  test::WriteFile(path, before);
  const std::string withIndex = [&] {
    IndexWriter(path).Write();
    return test::ReadFile(path);
  }();

  rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit low = old;
  low.rlim_cur = before.size() + 50;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &low), 0);
  EXPECT_THROW(IndexWriter(path).Write(), Error);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
  std::signal(SIGXFSZ, oldHandler);

  std::string withoutIndex = before;
  withoutIndex[kPartitionCountOffset] = 2;
  EXPECT_EQ(test::ReadFile(path), withoutIndex);
  IndexWriter(path).Write();
  EXPECT_EQ(test::ReadFile(path), withIndex);
}

}  // namespace
}  // namespace capsule::host
