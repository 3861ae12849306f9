// Images of other writers through host::Image: everything in them comes out equal to its source.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "capsule/container/header_format.h"
#include "capsule/host/image.h"
#include "capsule/host/image_map.h"
#include "capsule/host/index_writer.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"
#include "tests/support/damage_seed.h"
#include "tests/support/entries.h"
#include "tests/support/fat_section.h"
#include "tests/support/json.h"
#include "tests/support/ntfs_record.h"
#include "tests/support/ntfs_section.h"
#include "tests/support/open_image.h"
#include "tests/support/sample_images.h"
#include "tests/support/sha256.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

using test::Bytes;
using test::Contents;
using test::ErrorOf;
using test::ForeignItem;
using test::Json;
using test::NtfsVolume;
using test::TempDir;

std::string Text(const Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

// What partition 1 holds; the data of the file system's own files is not in an image.
void Collect(const NtfsVolume& volume, uint32_t folder, const std::string& path, Contents* out) {
  for (const uint32_t child : volume.Children(folder)) {
    const std::string name = path + "/" + Utf16ToUtf8(volume.Name(child));
    if (volume.IsDirectory(child)) {
      Collect(volume, child, name, out);
    } else {
      (*out)[name] = name.starts_with("1:/$") ? test::kUnread : Text(volume.Data(child));
    }
  }
}

Contents ReadContents(const Image& image) {
  Contents found = test::ReadContents(image);
  for (auto& [path, text] : found) {
    if (path.starts_with("1:/$")) text = test::kUnread;
  }
  return found;
}

std::string Noise(size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string text(size, ' ');
  for (char& c : text) c = static_cast<char>(random() % 9 == 0 ? random() : 'a' + random() % 4);
  return text;
}

ForeignItem File(const std::string& shortName, size_t size, const std::u16string& longName = {}) {
  const std::string noise = Noise(size);
  return {.shortName = shortName, .longName = longName, .content = {noise.begin(), noise.end()}};
}

// Puts a partition of FAT records; `contents` gets what it holds, as partition `number`.
void PutFat(test::ForeignImage& image, const test::FatStyle& style, const std::string& number,
            Contents* contents) {
  ForeignItem folder{.shortName = "FOLDER     ", .directory = true};
  folder.children = {File("BIG     BIN", 100000),
                     File("LONG~1  TXT", 16384, u"a long name of some length.text"),
                     {.shortName = "INNER      ", .directory = true}};
  ForeignItem stored = File("STORED  ZIP", 40000);
  stored.stored = true;
  PutFatSection(image, {File("SMALL   TXT", 700), folder, stored}, style);
  (*contents)[number + ":/SMALL.TXT"] = Noise(700);
  (*contents)[number + ":/FOLDER/BIG.BIN"] = Noise(100000);
  (*contents)[number + ":/FOLDER/a long name of some length.text"] = Noise(16384);
  (*contents)[number + ":/STORED.ZIP"] = Noise(40000);
}

struct ThreePartitions {
  Bytes image;
  Contents contents;
};

ThreePartitions MakeThreePartitions(const test::ForeignHeader& header, bool earlierLayout) {
  const NtfsVolume volume(test::UnpackVolume("vol_tree.ntfs"));
  test::ForeignImage foreign(header);
  ThreePartitions made;
  PutFat(foreign, {.systemId = 6, .chunkSize = 16384, .notes = true}, "0", &made.contents);
  PutNtfsSection(foreign, volume, {.earlierLayout = earlierLayout});
  Collect(volume, NtfsVolume::kRoot, "1:", &made.contents);
  PutFat(foreign, {.systemId = 12}, "2", &made.contents);
  made.image = foreign.Finish();
  return made;
}

TEST(ForeignImage, NtfsAndFatPartitionsInOneScrambledCompactImage) {
  const TempDir dir;
  const test::ForeignHeader compact{.tailOffset = 800, .scrambled = true, .key = "a key"};
  const test::ForeignHeader fixed{.compressed = false};
  for (const auto& header : {compact, fixed}) {
    const ThreePartitions made = MakeThreePartitions(header, header.compressed);
    test::WriteFile(dir / "image", Text(made.image));
    const Image image(dir / "image");
    EXPECT_EQ(ReadContents(image), made.contents);
    EXPECT_GT(made.contents.size(), 130U);
    EXPECT_TRUE(image.Problems().empty());
    EXPECT_EQ(image.Info().partitions[1].systemId, 7);
    EXPECT_EQ(image.Info().label, "Foreign writer 1.0");
  }
}

TEST(ForeignImage, NtfsEntriesAreFoundByBothNamesAndReadInRanges) {
  const TempDir dir;
  const ThreePartitions made = MakeThreePartitions({}, false);
  test::WriteFile(dir / "image", Text(made.image));
  const Image image(dir / "image");
  const auto pathOf = [&](const char* path) {
    const auto entry = image.Find(path);
    return entry ? entry->Path() : "none";
  };
  EXPECT_EQ(pathOf("1:/DOCUME~1/SUBONE~1/short.txt"), "1:/Documents/Sub One/SHORT.TXT");
  EXPECT_EQ(pathOf("1:\\documents\\a LONG file name.text"), "1:/Documents/a long file name.text");
  EXPECT_EQ(pathOf("1:/Documents/thirteen.cha"), "none");  // not a name, only the first of one
  EXPECT_TRUE(image.Find("1:/EMPTY").value().Children().empty());
  EXPECT_TRUE(image.Find("0:/FOLDER/INNER").value().Children().empty());

  std::mt19937 random(20014);
  for (const char* path : {"1:/fragmented.bin", "1:/Documents/after.txt"}) {
    const std::string& whole = made.contents.at(path);
    FileReader reader = image.OpenFile(*image.Find(path));
    for (int round = 0; round < 100; ++round) {
      const size_t start = random() % whole.size();
      Bytes bytes(1 + random() % 30000);
      bytes.resize(reader.Read(start, bytes));
      EXPECT_EQ(Text(bytes), whole.substr(start, std::max<size_t>(bytes.size(), 1)));
    }
  }
}

TEST(ForeignImage, DataThatIsNotInTheImageIsAnError) {
  const Image image(test::SamplePath("n_flat_old.img"));
  const std::string error = ErrorOf([&] { test::ReadAll(image, image.Find("$LogFile").value()); });
  EXPECT_NE(error.find("$LogFile"), std::string::npos) << error;
}

TEST(ForeignImage, EntriesBeyondAFoldersCountAreNamed) {
  const TempDir dir;
  const NtfsVolume volume(test::UnpackVolume("vol_flat.ntfs"));
  for (const bool stray : {false, true}) {
    test::ForeignImage foreign({});
    PutNtfsSection(foreign, volume, {.strayFile = stray});
    test::WriteFile(dir / "image", Text(foreign.Finish()));
    const Image image(dir / "image");
    std::string paths;
    for (const auto& problem : image.Problems()) paths += problem.path;
    EXPECT_EQ(paths, stray ? "0:/" : "");
  }
}

// A file whose data is described in a second FILE record, with a name beyond 8 bits.
TEST(ForeignImage, AFileOfSeveralFileRecords) {
  const std::string noise = Noise(20000);
  test::ForeignImage foreign({});
  foreign.BeginSection(7, 3);
  const auto put = [&](uint32_t type, const Bytes& payload, bool indexed) {
    const uint32_t start = foreign.Offset();
    PutNtfsRecord(foreign, type, false, 0, payload);
    if (indexed) foreign.Index(2, start, foreign.Offset() - start);
  };
  put(102, test::NtfsRecord().Name(3, u".").IndexRoot({{40, 5}}).Finish(), true);
  put(104, test::NtfsRecord().Resident(0x20, Bytes(32)).Name(1, u"\u65E5\u672C.txt").Finish(),
      true);
  put(105, test::NtfsRecord().NonResident(0x80, noise.size()).Finish(), false);
  put(106, Bytes(noise.begin(), noise.begin() + 16384), false);
  put(106, Bytes(noise.begin() + 16384, noise.end()), false);
  put(108, {}, true);
  foreign.EndSection();
  foreign.Index(2, foreign.Offset() - 40, 40);
  const TempDir dir;
  test::WriteFile(dir / "image", Text(foreign.Finish()));

  const Image image(dir / "image");
  EXPECT_EQ(test::ReadAll(image, image.Find("0:/\xE6\x97\xA5\xE6\x9C\xAC.txt").value()), noise);
  test::OpenImage classes(dir / "image");
  ASSERT_EQ(classes.Read(), 0);
  CapsuleFileBlock* block = test::BlockAt(classes.Partition(0)->GetFileBlocks(), 0);
  EXPECT_EQ(test::ExtractAll(classes.File(), *block), noise);
}

TEST(ForeignImage, InspectNamesFilesAsTheTreeDoes) {
  test::ForeignImage foreign({});
  foreign.BeginSection(7, 3);
  const auto put = [&](uint32_t type, const Bytes& payload) {
    const uint32_t start = foreign.Offset();
    PutNtfsRecord(foreign, type, false, 0, payload);
    foreign.Index(2, start, foreign.Offset() - start);
  };
  put(102, test::NtfsRecord().Name(3, u".").IndexRoot({{40, 5}}).Finish());
  put(104, test::NtfsRecord().Name(1, u"caf\u00E9.txt").Name(0, u"a link").Finish());
  put(108, {});
  foreign.EndSection();
  foreign.Index(2, foreign.Offset() - 40, 40);
  const TempDir dir;
  test::WriteFile(dir / "image", Text(foreign.Finish()));
  std::string told;
  MapImage(dir / "image", [&](const MapItem& item) { told += item.text + '\n'; });
  const Image image(dir / "image");
  const std::string name((*image.Root(0).Children().begin()).Name());
  EXPECT_EQ(name, "caf\xC3\xA9.txt");
  EXPECT_NE(told.find('"' + name + '"'), std::string::npos) << told;
}

// How much is told to be wrong with an image without an index.
size_t ProblemsIn(const Bytes& bytes) {
  const TempDir dir;
  test::WriteFile(dir / "image", Text(bytes));
  const Image image(dir / "image", Opening::Salvage);
  const Contents contents = test::ReadContents(image);
  const auto unread = std::count_if(contents.begin(), contents.end(),
                                    [](const auto& file) { return file.second == test::kUnread; });
  return image.Problems().size() + static_cast<size_t>(unread);
}

TEST(ForeignImage, RecordsOfUnknownTypesAreToldFromDamagedOnes) {
  constexpr size_t kNoIndexBlocks = 0x3AA8;  // of the type for them, but nothing depends on it
  const std::string sample = test::ReadFile(test::SamplePath("faults/n_synthetic.img"));
  Bytes whole(sample.begin(), sample.end());
  platform::StoreLe32(&whole[kIndexOffsetOffset], 0);
  EXPECT_EQ(ProblemsIn(whole), 0U);
  int records = 0;
  for (size_t at = kHeaderSize + kPartitionHeaderSize; whole[at + 2] != 108; ++records) {
    Bytes bytes = whole;
    bytes[at + 2] = 201;
    EXPECT_EQ(ProblemsIn(bytes) == 0, whole[at + 2] == 200 || at == kNoIndexBlocks) << at;
    at += 46 + size_t{platform::LoadLe16(&whole[at + 10])};
  }
  EXPECT_EQ(records, 17);
}

TEST(ForeignImage, AnIndexThatNamesAFileTwiceIsRefused) {
  test::ForeignImage foreign({});
  Contents contents;
  foreign.Index(2, kHeaderSize + kPartitionHeaderSize, 40);
  PutFat(foreign, {.systemId = 11}, "0", &contents);
  const TempDir dir;
  test::WriteFile(dir / "image", Text(foreign.Finish()));
  EXPECT_NE(ErrorOf([&] { Image(dir / "image"); }).find("twice"), std::string::npos);
}

TEST(ForeignImage, AnIndexIsBuiltForScrambledHeaders) {
  const TempDir dir;
  for (const uint16_t tail : {uint16_t{900}, uint16_t{0}}) {
    test::ForeignImage foreign({.tailOffset = tail, .scrambled = true, .key = "key"});
    Contents contents;
    PutFat(foreign, {.systemId = 11}, "0", &contents);
    PutFat(foreign, {.systemId = 4, .chunkSize = 16384}, "1", &contents);
    const uint32_t end = foreign.Offset();
    Bytes bytes = foreign.Finish();
    bytes.resize(end);
    platform::StoreLe32(&bytes[kIndexOffsetOffset], 0);
    test::WriteFile(dir / "image", Text(bytes));
    static_cast<void>(IndexWriter(dir / "image").Write());
    const Image image(dir / "image");
    EXPECT_TRUE(image.Info().checked);
    EXPECT_EQ(ReadContents(image), contents);
  }
}

std::string Sha256Of(const Image& image, const Entry& entry) {
  return test::Sha256(test::ReadAll(image, entry));
}

TEST(ForeignImage, SamplesOfOtherWritersHaveTheirContents) {
  const Json expected = test::ParseJson(test::ReadFile(test::SamplePath("n_flat_old.json")));
  const Image flat(test::SamplePath("n_flat_old.img"));
  std::map<uint32_t, Entry> byOffset;
  for (const Entry& entry : flat.Root(0).Children()) byOffset[entry.Offset()] = entry;
  int compared = 0;
  for (const Json& item : expected.at("children")) {
    const Entry& entry = byOffset.at(item.at("start").get<uint32_t>());
    EXPECT_EQ(entry.IsDirectory(), item.contains("children"));
    if (!item.contains("sha256")) continue;
    EXPECT_EQ(Sha256Of(flat, entry), item.at("sha256").get<std::string>()) << entry.Path();
    ++compared;
  }
  EXPECT_EQ(compared, 98);
  EXPECT_TRUE(flat.Find("child file number 089.txt"));

  const Image compact(test::SamplePath("h_compact_scrambled.img"));
  EXPECT_EQ(Sha256Of(compact, *compact.Find("0:/P6/SUB/deep dir number 6/X6.TXT")),
            "e157a2cd9d9710a3ca881bb79b1c66162982e99caf9f6ea7d5e96fecd18058ce");
  EXPECT_EQ(Sha256Of(compact, *compact.Find("1:/ONLY7.BIN")),
            "6baf98561a7643be09ee04285186c8df65da40903217a83b16bca04e53b0db93");
}

}  // namespace
}  // namespace capsule::host
