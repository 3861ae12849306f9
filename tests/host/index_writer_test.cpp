#include "capsule/host/index_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "capsule/container/index_format.h"
#include "capsule/host/error.h"
#include "capsule/host/verifier.h"
#include "capsule/platform/little_endian.h"
#include "tests/host/small_image.h"
#include "tests/support/damage_seed.h"
#include "tests/support/entries.h"
#include "tests/support/foreign_image.h"
#include "tests/support/process_limit.h"
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
test::ImageMaker TwoSections() {
  test::ImageMaker image;
  image.BeginSection();
  image.Folder("A          ");
  image.Entry("F       TXT", 0x20);
  image.EndSection();
  image.BeginSection();
  image.Close();
  image.SmallFile("G       TXT", 3);
  image.EndSection();
  image.SetPartitionCount(3);
  return image;
}

class IndexWriterTest : public testing::Test {
 protected:
  void Put(const std::string& bytes) const { test::WriteFile(m_path, bytes); }
  IndexReport Write(DamagedSections damaged = DamagedSections::Refuse) const {
    return IndexWriter(m_path).Write(damaged);
  }
  std::string Saved() const { return test::ReadFile(m_path); }

  void ExpectRefused(const std::string& bytes,
                     DamagedSections damaged = DamagedSections::Refuse) const {
    Put(bytes);
    const auto time = std::filesystem::last_write_time(m_path);
    EXPECT_THROW(Write(damaged), Error);
    EXPECT_EQ(Saved() == bytes, true);
    EXPECT_EQ(std::filesystem::last_write_time(m_path), time);
  }

  // By verifying and by opening, which must say the same.
  bool IsCalledSound() const {
    const bool isWhole = Image(m_path).IsWhole();
    EXPECT_EQ(Verifier(m_path).Run([](const Fault&) {}).faults == 0, isWhole);
    return isWhole;
  }

  test::TempDir m_folder;
  std::string m_path = m_folder / "x.cap";
};

TEST_F(IndexWriterTest, WritesEveryByteAsDescribed) {
  std::string expected = TwoSections().Bytes();
  Put(expected);
  const IndexReport report = Write();
  const auto end = static_cast<uint32_t>(expected.size());
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
  EXPECT_EQ(Saved(), expected);
  EXPECT_EQ(report.sections, 2u);
  EXPECT_EQ(report.directories, 1u);
  EXPECT_EQ(report.files, 2u);
  EXPECT_EQ(report.imageBytes, expected.size());
}

TEST_F(IndexWriterTest, RebuildsTheSameBytesAndCutsWhatIsBehind) {
  Put(TwoSections().Bytes() + std::string(5000, 'o'));
  Write();
  const std::string complete = Saved();
  std::string damaged = complete;
  ++damaged[complete.size() - 30];
  for (const std::string& bytes : {complete, damaged + "more"}) {
    Put(bytes);
    Write();
    EXPECT_EQ(Saved(), complete);
  }
}

// More records than the writer buffers, so that check values go to the file and to the buffer.
TEST_F(IndexWriterTest, LargeIndexesAreWrittenInPieces) {
  test::ImageMaker image;
  image.BeginSection();
  constexpr int kFiles = 5000;
  for (int i = 0; i < kFiles; ++i) image.Entry("F       TXT", 0x20);
  const uint32_t trailer = image.Here();
  image.EndSection();
  Put(image.Bytes());
  const IndexReport report = Write();
  const std::string bytes = Saved();
  const std::string index = bytes.substr(report.indexOffset);
  EXPECT_EQ(index.substr(0, 7), "CI1" + Le(XXH32(index.data() + 7, index.size() - 7, 0), 4));
  EXPECT_EQ(index.substr(7 + 32 + 11, 32), Checksum(bytes, 7560, trailer - 7560));
  EXPECT_EQ(index.size(), 7u + 32 + 11 + 32 + kFiles * (11u + 5 + 32) + 11);
}

TEST_F(IndexWriterTest, DamagedImagesStayAsTheyAre) {
  Put(TwoSections().Bytes());
  Write();
  std::string bytes = Saved();
  bytes[7560 + 2056] = 9;
  ExpectRefused(bytes);
  const std::string empty = test::ImageMaker().Bytes();
  Put(empty);
  EXPECT_EQ(Write().sections, 0U);
  EXPECT_EQ(Saved() == empty, true);
  EXPECT_THROW(IndexWriter(m_folder / "missing"), Error);
  EXPECT_THROW(IndexWriter(m_folder.Path()), Error);
}

// The header tells of other sections than there are: what it does not tell of is not cut off, and
// none gets a record that readers would not take for its own.
TEST_F(IndexWriterTest, DamagedPartitionRecordsLoseNoSection) {
  std::string bytes = TwoSections().Bytes();
  bytes[kPartitionCountOffset] = 1;
  ExpectRefused(bytes);
  bytes[kPartitionCountOffset] = 3;
  bytes[kPartitionRecordsOffset + kPartitionRecordSize + 2] = 0;
  ExpectRefused(bytes);
  bytes[kPartitionRecordsOffset + 2 * kPartitionRecordSize + 2] = 0x0B;
  ExpectRefused(bytes);

  test::ForeignImage compact({.tailOffset = 900});
  compact.BeginSection(0x0B, 2);
  compact.EndSection();
  const uint32_t end = compact.Offset();
  compact.BeginSection(0, 2);
  test::Bytes finished = compact.Finish();
  platform::StoreLe32(&finished[kIndexOffsetOffset], 0);
  ExpectRefused(std::string(finished.begin(), finished.begin() + end));

  test::ForeignImage scrambled({.scrambled = true});
  for (int i = 0; i < 2; ++i) {
    scrambled.BeginSection(0x0B, 2);
    scrambled.EndSection();
  }
  finished = scrambled.Finish();
  finished[kPartitionCountOffset] ^= 2 ^ 1;
  ExpectRefused(std::string(finished.begin(), finished.end()));
}

// An image of holes that leaves room for 100 bytes: too few for its index.
TEST_F(IndexWriterTest, ImagesThatWouldGetTooLargeStayAsTheyAre) {
  constexpr uint64_t kMost = 0x7FFFFFFF;
  test::ImageMaker image;
  image.BeginSection();
  image.Entry("F       BIN", 0x20, 0x7F000000);
  Put(image.Bytes());
  std::fstream file(m_path, std::ios::in | std::ios::out | std::ios::binary);
  const auto put = [&](uint64_t at, const auto& bytes) {
    file.seekp(static_cast<std::streamoff>(at));
    file.write(std::string(bytes.begin(), bytes.end()).data(), std::ssize(bytes));
  };
  const uint64_t trailer = kMost - 100 - kPartitionTrailerSize;
  for (uint64_t at = image.Here(); at < trailer;) {
    // The last record ends at the trailer; the one before leaves it room for a header.
    uint64_t length = std::min<uint64_t>(trailer - at - 8, 65535);
    if (trailer - at - 8 - length < 8 && trailer - at - 8 != length) length -= 8;
    const uint8_t isLast = at + 8 + length == trailer ? 1 : 0;
    put(at, EncodeMiniHeader({kRecordDataBlock, isLast, 0, static_cast<uint16_t>(length)}));
    at += 8 + length;
  }
  put(trailer, EncodePartitionTrailer());
  file.close();
  ASSERT_EQ(std::filesystem::file_size(m_path), kMost - 100);
  const std::string error = test::ErrorOf([&] { Write(); });
  EXPECT_NE(error.find("2147483647 are possible"), std::string::npos) << error;
  EXPECT_EQ(std::filesystem::file_size(m_path), kMost - 100);
}

// Only data of files is damaged, or the end is missing: the rest is found through a new index.
TEST_F(IndexWriterTest, IndexesWhatIsLeft) {
  const test::DamageSeed seed(CAPSULE_TEST_DATA "/images/h_compact_scrambled.img");
  const auto index = [&](const std::string& bytes, size_t from) {
    Put(bytes);
    const bool isCut = bytes.size() < seed.IndexOffset();
    const IndexReport report = Write(DamagedSections::IndexWhatIsLeft);
    EXPECT_GE(report.problems.size(), 1u);
    EXPECT_EQ(report.problems.back().path == "end of the image", isCut);
    EXPECT_FALSE(IsCalledSound());
    const Image indexed(m_path);
    EXPECT_GE(indexed.Problems().size(), report.problems.size());
    EXPECT_EQ(Saved().substr(kHeaderSize, bytes.size() - kHeaderSize), bytes.substr(kHeaderSize));
    test::Contents found = test::ReadContents(Image(m_path));
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
    ExpectRefused(bytes, DamagedSections::IndexWhatIsLeft);
  };
  refuse(whole, seed.Items()[1].offset);
  refuse(seed.Bytes(), seed.Items()[1].offset + 7);
  refuse(whole.substr(0, whole.size() / 2), 0);

  test::ImageMaker loose;  // a "." without its folder
  loose.BeginSection();
  loose.Entry(".          ", kDirectoryAttribute);
  loose.SmallFile("ONE     BIN", 512);
  loose.EndSection();
  refuse(loose.Bytes(), loose.Bytes().find("ONE     BIN") + kDirEntrySize + 7);
}

// An index whose check value holds is better than any that damaged sections give.
TEST_F(IndexWriterTest, NotesDamageInAnIndexThatIsRight) {
  std::string bytes = test::WriteIndexed(m_path, test::TwoFiles());
  EXPECT_TRUE(IsCalledSound());
  EXPECT_TRUE(Write(DamagedSections::IndexWhatIsLeft).problems.empty());
  EXPECT_EQ(Saved(), bytes);

  // A note of a kind that nobody knows is kept.
  const Image sound(m_path);
  const size_t start = sound.Info().indexOffset;
  const std::string unknown = Record(6, "what=ever", kHeaderSize, 9);
  bytes.insert(bytes.find("FOLDER/TWO.BIN", start) - 3, unknown);
  const std::string records = bytes.substr(start + 7);
  bytes.replace(start + 3, 4, Le(XXH32(records.data(), records.size(), 0), 4));
  const size_t data = bytes.find("dddd");
  bytes[data + 9] ^= 1;
  ExpectRefused(bytes, DamagedSections::IndexWhatIsLeft);

  EXPECT_FALSE(Write(DamagedSections::NoteDamage).problems.empty());
  const std::string noted = Saved();
  EXPECT_EQ(noted.substr(0, start), bytes.substr(0, start));
  EXPECT_NE(noted.find(unknown, start), std::string::npos);
  EXPECT_FALSE(IsCalledSound());
  const Image image(m_path);
  const auto& problems = image.Problems();
  EXPECT_TRUE(std::any_of(problems.begin(), problems.end(), [](const ImageProblem& problem) {
    return problem.path == "0:/FOLDER/ONE.BIN" &&
           problem.reason.find("known since the index was made") != std::string::npos;
  }));
  test::Contents found = test::ReadContents(image);
  EXPECT_EQ(found["0:/FOLDER/ONE.BIN"], test::kUnread);
  EXPECT_EQ(found["0:/FOLDER/TWO.BIN"], std::string(10, 'd'));
  for (const auto mode : {DamagedSections::NoteDamage, DamagedSections::IndexWhatIsLeft}) {
    EXPECT_FALSE(Write(mode).problems.empty());
    EXPECT_EQ(Saved() == noted, true);
  }

  ExpectRefused(noted);

  bytes[data - kDirRecordSize] = 0;  // no index leads over a record of this kind
  ExpectRefused(bytes, DamagedSections::NoteDamage);
}

// Without the flag compressed files would be read as stored ones, but for the header's check value.
TEST_F(IndexWriterTest, NotesOnTheHeaderLeaveFilesReadable) {
  Put(test::ReadFile(CAPSULE_TEST_DATA "/images/f_16384_lzs.img"));
  Write();
  const test::Contents whole = test::ReadContents(Image(m_path));
  std::string bytes = Saved();
  bytes[kCompressionFlagOffset] = 0;
  Put(bytes);
  EXPECT_TRUE(test::ReadContents(Image(m_path, Opening::Salvage)) == whole);
  EXPECT_FALSE(Write(DamagedSections::NoteDamage).problems.empty());
  EXPECT_TRUE(test::ReadContents(Image(m_path, Opening::Salvage)) == whole);
}

// Whatever is written opens strictly; damage that was there is still called so.
TEST_F(IndexWriterTest, NoIndexMakesDamageLookSound) {
  for (const auto& sample :
       std::filesystem::directory_iterator(CAPSULE_TEST_DATA "/images/faults")) {
    const std::string bytes = test::ReadFile(sample.path().string());
    for (const auto mode : {DamagedSections::IndexWhatIsLeft, DamagedSections::NoteDamage}) {
      SCOPED_TRACE(sample.path());
      Put(bytes);
      try {
        const bool wasSound = Verifier(m_path).Run([](const Fault&) {}).faults == 0;
        Write(mode);
        EXPECT_EQ(IsCalledSound(), wasSound);
      } catch (const Error&) {
        EXPECT_EQ(Saved() == bytes, true);
      }
    }
  }
}

// What the header has lost sight of still tells what its files were made of.
TEST_F(IndexWriterTest, AnIndexThatTheHeaderLostVouchesForItsFiles) {
  Put(TwoSections().Bytes());
  Write();
  const std::string whole = Saved();
  const Image image(m_path);
  const size_t data = image.Find("1:/G.TXT")->Offset() + kDirRecordSize + kMiniHeaderSize;
  std::string lost = whole;
  lost.replace(kIndexOffsetOffset, 4, 4, '\0');
  Put(lost);
  Write(DamagedSections::IndexWhatIsLeft);
  EXPECT_TRUE(Saved() == whole);
  lost[data] ^= 1;
  for (const auto mode : {DamagedSections::IndexWhatIsLeft, DamagedSections::NoteDamage}) {
    Put(lost);
    const std::string error = test::ErrorOf([&] { Write(mode); });
    EXPECT_NE(error.find("vouches for other bytes"), std::string::npos) << error;
    EXPECT_TRUE(Saved() == lost);
  }
}

// A full disk: the image is one without an index, not one with half of it.
TEST_F(IndexWriterTest, FailedWritesLeaveTheOldIndex) {
  const std::string image = TwoSections().Bytes();
  Put(image);
  Write();
  const std::string withIndex = Saved();
  {
    const test::ProcessLimit limit(RLIMIT_FSIZE, image.size() + 50);
    EXPECT_THROW(Write(), Error);
  }
  EXPECT_EQ(Saved(), withIndex);
}

}  // namespace
}  // namespace capsule::host
