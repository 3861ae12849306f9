#include "capsule/host/image.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "capsule/host/image_builder.h"
#include "capsule/host/index_writer.h"
#include "capsule/platform/little_endian.h"
#include "tests/host/small_image.h"
#include "tests/support/entries.h"
#include "tests/support/sample_images.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

using test::ErrorOf;
using test::ForEachEntry;
using test::ReadAll;
using test::SamplePath;
using test::SmallImage;
using test::TempDir;
using test::TwoFiles;
using Bytes = std::vector<unsigned char>;

std::string OpeningError(const std::string& path) {
  return ErrorOf([&] { Image image(path); });
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

TEST(ImageTest, FindsByLongAndShortNamesInEveryPartition) {
  const Image names(SamplePath("w_names.img"));
  const auto byLong = names.Find("0:/NAMES/abcdefghijklmnopqrstu6.txt");
  ASSERT_TRUE(byLong);
  EXPECT_EQ(byLong->ShortName(), "ABCDEF~4.TXT");
  EXPECT_EQ(byLong->Path(), "0:/NAMES/abcdefghijklmnopqrstu6.txt");
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

TEST(ImageTest, ExactNamesComeBeforeThoseThatDifferInCase) {
  TempDir directory;
  SmallImage small;
  small.BeginSection();
  for (const char* name : {"readme     ", "README     ", "ReadMe     ", "README     "}) {
    small.Entry(name, 0x20);
  }
  small.EndSection();
  test::WriteFile(directory / "i", small.Bytes());
  IndexWriter(directory / "i").Write();
  const Image image(directory / "i");
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

TEST(ImageTest, RangesInAnyOrderAndFromManyThreadsAgree) {
  const Image image(SamplePath("f_16384_lzs.img"));
  const Entry entry = *image.Find("0:/DATA/C.BIN");
  const std::string text = ReadAll(image, entry);
  const Bytes whole(text.begin(), text.end());
  ASSERT_EQ(whole.size(), 40000u);
  const auto check = [&](unsigned seed) {
    std::mt19937 random(seed);
    FileReader reader = image.OpenFile(entry);
    for (int i = 0; i < 300; ++i) {
      const size_t offset = random() % 41000;
      Bytes range(random() % 20000);
      const size_t expected = std::min(range.size(), 40000 - std::min<size_t>(offset, 40000));
      ASSERT_EQ(reader.Read(offset, range), expected);
      ASSERT_TRUE(
          std::equal(range.begin(), range.begin() + static_cast<std::ptrdiff_t>(expected),
                     whole.begin() + static_cast<std::ptrdiff_t>(std::min<size_t>(offset, 40000))));
    }
  };
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed) threads.emplace_back(check, seed);
  for (std::thread& thread : threads) thread.join();
}

// More than 64 times 256 KiB, so that kept histories are thinned out on the way.
TEST(ImageTest, BackwardRangesOfALongFileAgree) {
  const test::TempDir folder;
  std::string text;
  for (int64_t i = 0; text.size() < 20'000'000; ++i)
    text += "line " + std::to_string(i * 7919) + "\n";
  std::filesystem::create_directory(folder / "in");
  test::WriteFile(folder / "in/long.txt", text);
  ImageBuilder builder(folder / "x.cap");
  builder.AddDirectory(folder / "in");
  builder.Finish();
  const Image image(folder / "x.cap");
  FileReader reader = image.OpenFile(*image.Find("long.txt"));
  Bytes range(1000);
  for (size_t at = text.size() - range.size(); at > 100'000; at -= 99'991) {
    ASSERT_EQ(reader.Read(at, range), range.size());
    ASSERT_TRUE(
        std::equal(range.begin(), range.end(), text.begin() + static_cast<std::ptrdiff_t>(at),
                   [](unsigned char a, char b) { return a == static_cast<unsigned char>(b); }))
        << at;
  }
}

// What a thread sees of an image: every entry listed, found again by its path, and read.
std::string Survey(const Image& image, unsigned seed) {
  std::mt19937 random(seed);
  std::string seen;
  ForEachEntry(image, [&](const Entry& entry) {
    seen += entry.Path() + entry.ShortName() + (image.Find(entry.Path()) == entry ? "|" : "?");
    if (entry.Size() == 0 || entry.Name()[0] == '$') return;  // without data in this image
    const uint64_t from = random() % entry.Size();
    Bytes bytes(static_cast<size_t>(entry.Size() - from));
    EXPECT_EQ(image.Read(entry, from, bytes), bytes.size());
    seen += std::to_string(bytes.back());
  });
  return seen;
}

TEST(ImageTest, EntriesOfNoImageSaySo) {
  const Entry none;
  EXPECT_EQ(none, Entry());
  for (const std::string& error :
       {ErrorOf([&] { none.Path(); }), ErrorOf([&] { none.Children(); }),
        ErrorOf([&] { none.Size(); }), ErrorOf([&] { none.ModifiedTime(); })}) {
    EXPECT_EQ(error, "entry: belongs to no image");
  }
}

TEST(ImageTest, ManyThreadsListFindAndReadOneImage) {
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

TEST(ImageTest, SaysWhyItCannotBeOpened) {
  TempDir directory;
  const auto with = [&](const std::string& bytes) {
    test::WriteFile(directory / "i", bytes);
    return OpeningError(directory / "i");
  };
  const auto has = [](const std::string& message, const std::string& part) {
    EXPECT_NE(message.find(part), std::string::npos) << message;
  };
  has(OpeningError(directory / "missing"), "cannot open: no such file or directory");
  has(OpeningError(directory.Path().string()), "directory");
  has(with(""), "not an image: 0 bytes");
  has(with(std::string(7559, 'x')), "not an image: 7559 bytes");
  has(with(std::string(10000, 'x')), "not an image");
  SmallImage small = TwoFiles();
  has(with(small.Bytes()), "has no index; `capsule index` makes one");
  IndexWriter(directory / "i").Write();
  const std::string whole = test::ReadFile(directory / "i");
  const auto patched = [&](size_t at, std::string_view bytes) {
    return with(std::string(whole).replace(at, bytes.size(), bytes));
  };
  EXPECT_EQ(with(whole), "");
  has(patched(kPartitionRecordsOffset + 2, "\x07"), "folders of partition 0 cannot be read");
  has(patched(kScrambleFlagOffset, "\x01"), "folders of partition 1 cannot be read");
  has(patched(kPartitionCountOffset, "\x0b"), "header is damaged");
  has(patched(kIndexOffsetOffset, std::string_view("\x01\0\0\0", 4)), "inside the header");
  has(patched(kIndexOffsetOffset, "\xff\xff\xff\xff"), "cut short");
  has(with(whole + "x"), "index is damaged");
  EXPECT_EQ(OpeningError(SamplePath("w_files_only.img")), "");
}

TEST(ImageTest, ACutAtAnyLengthIsNoticed) {
  TempDir directory;
  test::WriteFile(directory / "i", TwoFiles().Bytes());
  IndexWriter(directory / "i").Write();
  const std::string checked = test::ReadFile(directory / "i");
  const std::string unchecked = test::ReadFile(SamplePath("w_files_only.img"));
  for (const std::string& whole : {checked, unchecked}) {
    for (size_t length = 0; length < whole.size(); length += length + 300 < whole.size() ? 97 : 1) {
      test::WriteFile(directory / "cut", whole.substr(0, length));
      ASSERT_NE(OpeningError(directory / "cut"), "") << length;
    }
  }
}

TEST(ImageTest, ADamagedIndexIsNoticedAndOtherDamageDoesNoHarm) {
  TempDir directory;
  test::WriteFile(directory / "i", TwoFiles().Bytes());
  IndexWriter(directory / "i").Write();
  std::string bytes = test::ReadFile(directory / "i");
  const size_t index =
      platform::LoadLe32(Bytes(bytes.begin(), bytes.end()).data() + kIndexOffsetOffset);
  const auto descriptors = OpenDescriptors();
  for (size_t at = 5500; at < bytes.size(); at += at < index ? 37 : 5) {
    const char before = bytes[at];
    for (const int value : {0x00, 0x01, 0xFF}) {
      bytes[at] = static_cast<char>(value);
      if (bytes[at] == before) continue;
      test::WriteFile(directory / "i", bytes);
      const std::string message = ErrorOf([&] { ReadEverything(Image(directory / "i")); });
      // "CI1" itself may become something else: then there is no check value to compare.
      if (at >= index + 3) {
        ASSERT_NE(message, "") << at << " " << value;
      }
    }
    bytes[at] = before;
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(ImageTest, RecordsMustHoldExactlyWhatTheyState) {
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
  TempDir directory;
  test::WriteFile(directory / "i", TwoFiles().Bytes());
  IndexWriter(directory / "i").Write();
  const std::string whole = test::ReadFile(directory / "i");
  for (const Case& damage : cases) {
    test::WriteFile(directory / "i",
                    std::string(whole).replace(damage.at, damage.bytes.size(), damage.bytes));
    const Image image(directory / "i");
    const std::string message = ErrorOf([&] { ReadAll(image, *image.Find("0:/FOLDER/ONE.BIN")); });
    EXPECT_NE(message.find(damage.message), std::string::npos) << damage.message << ": " << message;
    EXPECT_NE(message.find("0:/FOLDER/ONE.BIN: data block at 0x"), std::string::npos) << message;
    EXPECT_EQ(ReadAll(image, *image.Find("0:/FOLDER/TWO.BIN")), std::string(10, 'd'));
  }
}

TEST(ImageTest, CompressedRecordsMustDecodeToTheirLength) {
  TempDir directory;
  const std::string whole = test::ReadFile(SamplePath("f_16384_lzs.img"));
  const auto readingError = [&](const char* path, const auto& damage) {
    std::string bytes = whole;
    size_t data = 0;
    {
      const Image image(SamplePath("f_16384_lzs.img"));
      data = image.Find(path)->Offset() + 40;
    }
    damage(bytes, data);
    test::WriteFile(directory / "i", bytes);
    const Image image(directory / "i");
    return ErrorOf([&] { ReadAll(image, *image.Find(path)); });
  };
  const std::string path = "0:/DATA/C.BIN";
  const auto longer =
      readingError(path.c_str(), [](std::string& b, size_t at) { b[at + 3] = 0x42; });
  EXPECT_NE(longer.find("decodes to 16384 bytes instead of 16896"), std::string::npos) << longer;
  const auto cut = readingError(path.c_str(), [](std::string& b, size_t at) { b[at + 3] = 0x3E; });
  EXPECT_NE(cut.find("decodes to more than the 15872 bytes"), std::string::npos) << cut;
  int failures = 0;
  for (int seed = 0; seed < 100; ++seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    failures += readingError(path.c_str(), [&](std::string& b, size_t at) {
                  b[at + 8 + random() % 18000] ^= static_cast<char>(1U << (random() % 8));
                }) != "";
  }
  EXPECT_GT(failures, 0);  // a changed literal is valid data; a changed token rarely is
}

TEST(ImageTest, DeepTreesAreOpenedAndLeftWithoutRecursion) {
  constexpr int kDepth = 5000;
  TempDir directory;
  SmallImage small;
  small.BeginSection();
  for (int i = 0; i < kDepth; ++i) small.Folder("D          ");
  small.EndSection();
  test::WriteFile(directory / "i", small.Bytes());
  IndexWriter(directory / "i").Write();
  const Image image(directory / "i");
  Entry entry = image.Root(0);
  int depth = 0;
  for (; !entry.Children().empty(); ++depth) entry = *entry.Children().begin();
  EXPECT_EQ(depth, kDepth);
  EXPECT_EQ(entry.Path().size(), 2u + 2 * kDepth);
}

}  // namespace
}  // namespace capsule::host
