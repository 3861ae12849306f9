#include "capsule/host/image.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "capsule/host/image_builder.h"
#include "tests/host/small_image.h"
#include "tests/support/bytes.h"
#include "tests/support/entries.h"
#include "tests/support/sample_images.h"

namespace capsule::host {
namespace {

using test::ErrorOf;
using test::ForEachEntry;
using test::ImageMaker;
using test::ReadAll;
using test::SamplePath;
using test::TwoFiles;

class ImageTest : public testing::Test {
 protected:
  // Puts `bytes` in the place of the image; returns what goes wrong when it is opened.
  std::string OpeningError(const std::string& bytes) {
    test::WriteFile(m_path, bytes);
    return ErrorOf([&] { Image image(m_path); });
  }

  test::TempDir m_directory;
  std::string m_path = m_directory / "i";
};

std::string Range(FileReader& reader, uint64_t offset, size_t length) {
  std::vector<unsigned char> bytes(length);
  bytes.resize(reader.Read(offset, bytes));
  return {bytes.begin(), bytes.end()};
}

// Every file of the image, read to its end.
void ReadEverything(const Image& image) {
  ForEachEntry(image, [&](const Entry& entry) {
    if (!entry.IsDirectory()) ReadAll(image, entry);
  });
}

std::ptrdiff_t OpenDescriptors() {
  const std::filesystem::directory_iterator listing("/proc/self/fd");
  return std::distance(begin(listing), end(listing));
}

constexpr uint32_t kOneData = 7560 + 2056 + 3 * 40 + 40;  // first record of ONE.BIN

TEST_F(ImageTest, FindsByLongAndShortNamesInEveryPartition) {
  const Image names(SamplePath("w_names.img"));
  const auto byLong = names.Find("0:/NAMES/abcdefghijklmnopqrstu6.txt").value();
  EXPECT_EQ(byLong.ShortName(), "ABCDEF~4.TXT");
  EXPECT_EQ(byLong.Path(), "0:/NAMES/abcdefghijklmnopqrstu6.txt");
  for (const char* path : {"NAMES/ABCDEF~4.TXT", "\\names\\abcdef~4.txt", "//NAMES/\\ABCDEF~4.Txt",
                           "0:NAMES/ABCDEFGHIJKLMNOPQRSTU6.TXT"}) {
    EXPECT_EQ(names.Find(path), byLong) << path;
  }
  for (const char* path : {"0:/NAMES/abcdef", "1:/NAMES", "0:/NAMES/ABCDEF~4.TXT/x", "0:/NAMES/.",
                           "99999999999:/NAMES", "0:/names "}) {
    EXPECT_FALSE(names.Find(path)) << path;
  }

  const Image three(SamplePath("w_three_open.img"));
  ASSERT_EQ(three.Partitions(), 3);
  EXPECT_EQ(three.Find("2:")->Path(), "2:/");
  EXPECT_EQ(three.Find("2:/p2/sub/deep2/x2.txt")->Size(), 9002u);
  EXPECT_FALSE(three.Find("1:/p2"));
}

TEST_F(ImageTest, ExactNamesComeBeforeThoseThatDifferInCase) {
  ImageMaker small;
  small.BeginSection();
  for (const char* name : {"readme     ", "README     ", "ReadMe     ", "README     "}) {
    small.Entry(name, 0x20);
  }
  small.EndSection();
  test::WriteIndexed(m_path, small);
  const Image image(m_path);
  std::vector<Entry> entries;
  for (const Entry& entry : image.Root(0).Children()) entries.push_back(entry);
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(image.Find("readme"), entries[0]);
  EXPECT_EQ(image.Find("README"), entries[1]);
  EXPECT_EQ(image.Find("ReadMe"), entries[2]);
  EXPECT_EQ(image.Find("rEADME"), entries[1]);  // the first in byte order
  EXPECT_TRUE(entries[3].IsDuplicate());
  EXPECT_FALSE(entries[1].IsDuplicate());
}

TEST_F(ImageTest, RangesInAnyOrderAndFromManyThreadsAgree) {
  const Image image(SamplePath("f_16384_lzs.img"));
  const Entry entry = *image.Find("0:/DATA/C.BIN");
  const std::string whole = ReadAll(image, entry);
  ASSERT_EQ(whole.size(), 40000u);
  const auto check = [&](unsigned seed) {
    std::mt19937 random(seed);
    FileReader reader = image.OpenFile(entry);
    for (int i = 0; i < 300; ++i) {
      const size_t offset = random() % 41000;
      const size_t length = random() % 20000;
      ASSERT_EQ(Range(reader, offset, length),
                whole.substr(std::min(offset, whole.size()), length));
    }
  };
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed) threads.emplace_back(check, seed);
  for (std::thread& thread : threads) thread.join();
}

// More than 64 times 256 KiB, so that kept histories are thinned out on the way.
TEST_F(ImageTest, BackwardRangesOfALongFileAgree) {
  std::string text;
  for (int64_t i = 0; text.size() < 20'000'000; ++i)
    text += "line " + std::to_string(i * 7919) + "\n";
  std::filesystem::create_directory(m_directory / "in");
  test::WriteFile(m_directory / "in/long.txt", text);
  ImageBuilder builder(m_path);
  builder.AddDirectory(m_directory / "in");
  static_cast<void>(builder.Finish());
  const Image image(m_path);
  FileReader reader = image.OpenFile(*image.Find("long.txt"));
  for (size_t at = text.size() - 1000; at > 100'000; at -= 99'991) {
    ASSERT_EQ(Range(reader, at, 1000), text.substr(at, 1000)) << at;
  }
}

// What a thread sees of an image: every entry listed, found again by its path, and read.
std::string Survey(const Image& image, unsigned seed) {
  std::mt19937 random(seed);
  std::string seen;
  ForEachEntry(image, [&](const Entry& entry) {
    seen += entry.Path() + std::string(entry.ShortName()) +
            (image.Find(entry.Path()) == entry ? "|" : "?");
    if (entry.Size() == 0 || entry.Name()[0] == '$') return;  // without data in this image
    const uint64_t from = random() % entry.Size();
    std::vector<unsigned char> bytes(static_cast<size_t>(entry.Size() - from));
    EXPECT_EQ(image.Read(entry, from, bytes), bytes.size());
    seen += std::to_string(bytes.back());
  });
  return seen;
}

TEST_F(ImageTest, EntriesOfNoImageSaySo) {
  const Entry none;
  EXPECT_EQ(none, Entry());
  for (const std::string& error :
       {ErrorOf([&] { none.Path(); }), ErrorOf([&] { none.Children(); }),
        ErrorOf([&] { none.Size(); }), ErrorOf([&] { none.ModifiedTime(); })}) {
    EXPECT_EQ(error, "entry: belongs to no image");
  }
}

TEST_F(ImageTest, ManyThreadsListFindAndReadOneImage) {
  for (const char* name :
       {"w_three_open.img", "w_names.img", "f_16384_lzs.img", "n_flat_old.img"}) {
    const Image image(SamplePath(name));
    std::vector<std::string> seen(4);
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < seen.size(); ++i) {
      threads.emplace_back([&, i] { seen[i] = Survey(image, i); });
    }
    for (std::thread& thread : threads) thread.join();
    const std::string alone = Survey(Image(SamplePath(name)), 5);
    EXPECT_NE(alone, "");
    EXPECT_EQ(alone.find('?'), std::string::npos) << alone;
    for (const std::string& each : seen) EXPECT_EQ(each, alone) << name;
  }
}

TEST_F(ImageTest, SaysWhyItCannotBeOpened) {
  const auto has = [&](const std::string& bytes, const std::string& part) {
    const std::string message = OpeningError(bytes);
    EXPECT_NE(message.find(part), std::string::npos) << message;
  };
  has(std::string(7559, 'x'), "not an image: 7559 bytes");
  has(TwoFiles().Bytes(), "has no index; `capsule index` makes one");
  const std::string whole = test::WriteIndexed(m_path, TwoFiles());
  const auto patched = [&](size_t at, std::string_view bytes) {
    return std::string(whole).replace(at, bytes.size(), bytes);
  };
  has(patched(kPartitionRecordsOffset + 2, "\x07"),
      "folders of partition 0 cannot be read: record at 0x2590: no record of an NTFS section");
  has(patched(kScrambleFlagOffset, "\x01"), "folders of partition 1 cannot be read");
  has(patched(kPartitionCountOffset, "\x0b"), "header is damaged");
  has(patched(kIndexOffsetOffset, std::string_view("\x01\0\0\0", 4)), "inside the header");
  has(patched(kIndexOffsetOffset, "\xff\xff\xff\xff"), "cut short");
  has(whole + "x", "index is damaged");
}

TEST_F(ImageTest, ACutAtAnyLengthIsNoticed) {
  const std::string checked = test::WriteIndexed(m_path, TwoFiles());
  const std::string unchecked = test::ReadFile(SamplePath("w_files_only.img"));
  for (const std::string& whole : {checked, unchecked}) {
    EXPECT_EQ(OpeningError(whole), "");
    for (size_t length = 0; length < whole.size(); length += length + 300 < whole.size() ? 97 : 1) {
      ASSERT_NE(OpeningError(whole.substr(0, length)), "") << length;
    }
  }
}

TEST_F(ImageTest, ADamagedIndexIsNoticedAndOtherDamageDoesNoHarm) {
  std::string bytes = test::WriteIndexed(m_path, TwoFiles());
  const size_t index = test::U32At(bytes, kIndexOffsetOffset);
  const auto descriptors = OpenDescriptors();
  for (size_t at = 5500; at < bytes.size(); at += at < index ? 37 : 5) {
    const char before = bytes[at];
    for (const int value : {0x00, 0x01, 0xFF}) {
      bytes[at] = static_cast<char>(value);
      if (bytes[at] == before) continue;
      test::WriteFile(m_path, bytes);
      const std::string message = ErrorOf([&] { ReadEverything(Image(m_path)); });
      // "CI1" itself may become something else: then there is no check value to compare.
      if (at >= index + 3) {
        ASSERT_NE(message, "") << at << " " << value;
      }
    }
    bytes[at] = before;
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(ImageTest, RecordsMustHoldExactlyWhatTheyState) {
  struct Case {
    size_t at;
    std::string_view bytes;
    std::string_view message;
  };
  constexpr uint32_t kSecond = kOneData + 8 + 512;
  const Case cases[] = {
      {kOneData, "\x17", "record is of type 23"},
      {kOneData + 1, "\x01", "marked as the last record, but ends at 512 of 700 bytes"},
      {kSecond + 1, std::string_view("\0", 1), "not marked as the last record"},
      {kSecond + 6, std::string_view("\xff\xff", 2), "payload is 65535 bytes, 512 remain"},
      {kSecond + 6, std::string_view("\0\0", 2), "chunk is 0 bytes"},
      {kOneData - 4, std::string_view("\0\2\0\0", 4), "marked as the last"},
      {kOneData - 4, std::string_view("\0\0\1\0", 4), "cannot hold them"},
      {kOneData - 4, std::string_view("\1\0\0\0", 4), "not marked as the last record"},
  };
  const std::string whole = test::WriteIndexed(m_path, TwoFiles());
  for (const Case& damage : cases) {
    test::WriteFile(m_path,
                    std::string(whole).replace(damage.at, damage.bytes.size(), damage.bytes));
    const Image image(m_path);
    const std::string message = ErrorOf([&] { ReadAll(image, *image.Find("0:/FOLDER/ONE.BIN")); });
    EXPECT_NE(message.find(damage.message), std::string::npos) << damage.message << ": " << message;
    EXPECT_NE(message.find("0:/FOLDER/ONE.BIN: data block at 0x"), std::string::npos) << message;
    EXPECT_EQ(ReadAll(image, *image.Find("0:/FOLDER/TWO.BIN")), std::string(10, 'd'));
  }
}

TEST_F(ImageTest, CompressedRecordsMustDecodeToTheirLength) {
  const std::string whole = test::ReadFile(SamplePath("f_16384_lzs.img"));
  const Image sample(SamplePath("f_16384_lzs.img"));
  const size_t data = sample.Find("0:/DATA/C.BIN")->Offset() + 40;
  const auto readingError = [&](size_t at, int flipped) {
    std::string bytes = whole;
    bytes[data + at] ^= static_cast<char>(flipped);
    test::WriteFile(m_path, bytes);
    const Image image(m_path);
    return ErrorOf([&] { ReadAll(image, *image.Find("0:/DATA/C.BIN")); });
  };
  const std::string longer = readingError(3, 0x40 ^ 0x42);
  EXPECT_NE(longer.find("decodes to 16384 bytes instead of 16896"), std::string::npos) << longer;
  const std::string cut = readingError(3, 0x40 ^ 0x3E);
  EXPECT_NE(cut.find("decodes to more than the 15872 bytes"), std::string::npos) << cut;
  int failures = 0;
  for (unsigned seed = 0; seed < 100; ++seed) {
    std::mt19937 random(seed);
    const int flipped = 1 << (random() % 8);
    if (!readingError(8 + random() % 18000, flipped).empty()) ++failures;
  }
  EXPECT_GT(failures, 0);  // a changed literal is valid data; a changed token rarely is
}

TEST_F(ImageTest, DeepTreesAreOpenedAndLeftWithoutRecursion) {
  constexpr int kDepth = 5000;
  ImageMaker small;
  small.BeginSection();
  for (int i = 0; i < kDepth; ++i) small.Folder("D          ");
  small.EndSection();
  test::WriteIndexed(m_path, small);
  const Image image(m_path);
  Entry entry = image.Root(0);
  int depth = 0;
  for (; !entry.Children().empty(); ++depth) entry = *entry.Children().begin();
  EXPECT_EQ(depth, kDepth);
  EXPECT_EQ(entry.Path().size(), 2u + 2 * kDepth);
}

}  // namespace
}  // namespace capsule::host
