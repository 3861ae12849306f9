// Real damage over real images: what is untouched comes out equal, what is not is never wrong.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <set>

#include "capsule/blocks/file_block.h"
#include "capsule/container/capsule_file.h"
#include "capsule/container/index_format.h"
#include "capsule/host/file/checksum.h"
#include "capsule/host/image.h"
#include "capsule/host/image_map.h"
#include "capsule/host/index_writer.h"
#include "capsule/host/verifier.h"
#include "tests/host/small_image.h"
#include "tests/support/bytes.h"
#include "tests/support/damage_seed.h"
#include "tests/support/entries.h"
#include "tests/support/image_maker.h"
#include "tests/support/open_image.h"
#include "tests/support/sample_images.h"
#include "tests/support/source_tree.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

// A sample with an index of this system, or with its own, which has no check value.
class Seed : public test::TempDir, public test::DamageSeed {
 public:
  explicit Seed(const std::string& name, bool isChecked = true)
      : DamageSeed(Put(name, isChecked)) {}

  // Reads `bytes`: untouched files are there and equal.
  void Check(const std::string& bytes, const std::set<std::string>& untouched,
             const std::string& what) const {
    const std::string path = *this / "x.cap";
    test::WriteFile(path, bytes);
    const test::Contents found = test::ReadContents(Image(path, Opening::Salvage));
    for (const std::string& file : untouched) {
      const auto at = found.find(file);
      ASSERT_NE(at, found.end()) << what << ": " << file;
      ASSERT_EQ(at->second == Whole().at(file), true) << what << ": " << file;
    }
  }

  // The same with another byte at `at`, then without the index as well.
  void CheckByte(size_t at, int value) const {
    std::string bytes = Bytes();
    bytes[at] = static_cast<char>(value);
    if (bytes == Bytes()) return;
    Check(bytes, Untouched(at, at + 1), "byte " + std::to_string(at));
    Check(bytes.substr(0, IndexOffset()), Untouched(at, at + 1),
          "byte " + std::to_string(at) + ", no index");
  }

 private:
  std::string Put(const std::string& name, bool isChecked) const {
    const std::string path = *this / "x.cap";
    test::WriteFile(path, test::ReadFile(CAPSULE_TEST_DATA "/images/" + name));
    if (isChecked) static_cast<void>(IndexWriter(path).Write());
    return path;
  }
};

class Salvage : public testing::TestWithParam<const char*> {};

TEST_P(Salvage, BrokenIndexLosesNothing) {
  const Seed seed(GetParam());
  const std::set<std::string> all = seed.Untouched(0, 0);
  ASSERT_EQ(all.size(), seed.Whole().size());
  std::string bytes = seed.Bytes();
  seed.Check(bytes.substr(0, seed.IndexOffset()), all, "cut off");
  for (size_t at = seed.IndexOffset(); at < bytes.size(); at += bytes.size() / 97 + 1) {
    bytes[at] = static_cast<char>(bytes[at] ^ 0x55);
    seed.Check(bytes, all, "index byte " + std::to_string(at));
  }
  for (const char* offset : {"\0\0\0\0", "\xff\xff\xff\xff", "\1\0\0\0"}) {
    seed.Check(std::string(seed.Bytes()).replace(kIndexOffsetOffset, 4, offset, 4), all, "offset");
  }
}

TEST_P(Salvage, TruncationKeepsWhatLiesBefore) {
  const Seed seed(GetParam());
  const size_t size = seed.Bytes().size();
  for (size_t length = seed.Items().at(1).offset + 40; length < size; length += size / 61) {
    seed.Check(seed.Bytes().substr(0, length), seed.Untouched(length, size),
               "length " + std::to_string(length));
  }
}

TEST_P(Salvage, DamagedRecordsLoseOnlyWhatIsTheirs) {
  const Seed seed(GetParam());
  size_t turn = 0;
  for (const SectionItem& item : seed.Items()) {
    const size_t end = item.offset + item.length;
    const size_t data = item.kind == Kind::File ? item.dataOffset : end;
    const size_t step = std::max<size_t>(9, (data - item.offset) / 3);
    for (size_t at = item.offset + turn % 9; at < data; at += step) {
      constexpr std::array<int, 5> kValues = {0x00, 0x01, 0x7F, 0x80, 0xFF};
      seed.CheckByte(at, kValues[turn++ % kValues.size()]);
    }
    for (size_t at = data; at < std::min(end, data + 12); at += 2) {
      seed.CheckByte(at, seed.Bytes()[at] ^ 0x7F);
    }
    if (HasFatalFailure()) return;
  }
}

// Two records one behind the other lose most of their bytes, or the index loses a byte at its end,
// where sections end as well. An index without a check value still tells what stood there.
TEST_P(Salvage, AnyIndexTellsWhatIsLost) {
  const Seed seed(GetParam(), false);
  const auto& items = seed.Items();
  for (size_t i = 1; i + 1 < items.size(); ++i) {
    const SectionItem& item = items[i];
    if (item.kind == Kind::Section || item.kind == Kind::Trailer || item.isNtfs) continue;
    const bool isAlone = items[i + 1].kind == Kind::Trailer;
    const uint64_t end = isAlone ? item.offset + item.length : items[i + 1].offset + 20;
    std::string bytes = seed.Bytes();
    for (uint64_t at = item.offset + 3; at < end; at += 1 + at % 3) bytes[at] = '\x47';
    seed.Check(bytes, seed.Untouched(item.offset, end), std::to_string(item.offset));
    if (HasFatalFailure()) return;
  }
  for (size_t at = seed.Bytes().size() - 60; at < seed.Bytes().size(); ++at) {
    for (const char value : {'\x01', '\x7F'}) {
      std::string bytes = seed.Bytes();
      bytes[at] = value;
      seed.Check(bytes, seed.Untouched(0, 0), "index byte " + std::to_string(at));
    }
  }
}

// A stored record that seems longer still is one, and may reach over the next file.
TEST(SalvagedNtfs, ALongerRecordHidesNoFile) {
  constexpr size_t kRecord = 46 + 16384;
  const Seed seed("n_flat_old.img", false);
  for (const SectionItem& item : seed.Items()) {
    if (item.kind != Kind::File) continue;
    for (size_t at = item.dataOffset; at + kRecord < item.offset + item.length; at += kRecord) {
      std::string bytes = seed.Bytes();
      bytes[at + 11] = 0x5A;
      seed.Check(bytes, seed.Untouched(at + 11, at + 12), std::to_string(at));
    }
  }
}

// Through host::Image, folders with a '/' behind.
std::vector<std::string> PathsOf(const Image& image) {
  std::vector<std::string> paths;
  test::ForEachEntry(image, [&](const Entry& entry) {
    if (!entry.IsRoot()) paths.push_back(entry.Path().substr(3) + (entry.IsDirectory() ? "/" : ""));
  });
  std::sort(paths.begin(), paths.end());
  return paths;
}

// The same through the exported classes, which have names of 8.3 only.
std::vector<std::string> ClassPathsOf(const std::string& path) {
  std::vector<std::string> paths;
  test::OpenImage image(path);
  EXPECT_EQ(image.Read(), 0);
  const std::function<void(CpsList&, const std::string&)> add = [&](CpsList& list,
                                                                    const std::string& folder) {
    for (int i = 0; CapsuleFileBlock* block = test::BlockAt(list, i); ++i) {
      const _ShortDirEntry& entry = block->GetDirectoryEntry().EntryInUse();
      const std::string name = ShortNameToBytes(entry);
      if (name == "." || name == "..") continue;
      const bool isFolder = (entry.Attribute & kDirectoryAttribute) != 0;
      paths.push_back(folder + name + (isFolder ? "/" : ""));
      if (isFolder) add(block->FileList(), folder + name + "/");
    }
  };
  add(image.Partition(0)->GetFileBlocks(), "");
  std::sort(paths.begin(), paths.end());
  return paths;
}

// A drive's root, or a folder with a separator behind it, is stored as ".", "." and "..", of which
// none opens a level.
TEST(BareDots, OpenNoLevel) {
  using Paths = std::vector<std::string>;
  const struct {
    std::vector<std::string> inserted;  // none: a sample
    Paths paths;
  } cases[] = {
      {{}, {"DIR/", "DIR/F"}},
      {{"C:\\", "C:\\A", "C:\\A\\F"}, {"A/", "A/F"}},
      {{"C:\\A", "C:\\A\\F", "C:\\", "C:\\Z.TXT"}, {"A/", "A/F", "Z.TXT"}},
      {{"C:\\A", "C:\\A\\B\\", "C:\\A\\B\\G", "C:\\Z.TXT"}, {"A/", "A/G", "Z.TXT"}},
      {{"C:\\A", "C:\\A\\E", "C:\\A\\B\\", "C:\\A\\B\\G", "C:\\Z.TXT"},
       {"A/", "A/E", "A/G", "Z.TXT"}},
      {{"C:\\A", "C:\\A\\B", "C:\\A\\B\\", "C:\\A\\B\\G", "C:\\Z.TXT"},
       {"A/", "A/B/", "A/B/G", "Z.TXT"}},
  };
  for (const auto& [inserted, paths] : cases) {
    test::SourceTree tree;
    for (const char* file : {"A/F", "A/B/G", "Z.TXT"}) tree.AddFile(file, file);
    tree.AddFile("A/E", "");
    const std::string path = tree.Beside("x.img");
    if (inserted.empty()) {
      test::WriteFile(path, test::ReadFile(test::SamplePath("faults/w_drive_root.img")));
      EXPECT_EQ(PathsOf(Image(path)), paths);
      EXPECT_EQ(ClassPathsOf(path), paths);
    } else {
      CapsuleFile image;
      ASSERT_EQ(image.CreateCapsuleFile(path.c_str()), 0);
      ASSERT_EQ(image.WriteImageFileHeader("Capsulate test"), 0);
      for (const std::string& item : inserted) ASSERT_EQ(image.InsertFile(item.c_str(), 0), 0);
      ASSERT_EQ(image.CloseImageFile(), 0);
    }
    const std::string bare = test::ReadFile(path);
    static_cast<void>(IndexWriter(path).Write());
    EXPECT_EQ(PathsOf(Image(path)), paths);
    EXPECT_EQ(ClassPathsOf(path), paths);
    std::string unchecked = test::ReadFile(path);
    const uint32_t index = test::U32At(unchecked, kIndexOffsetOffset);
    unchecked[index] = 'X';
    test::WriteFile(path, unchecked);
    EXPECT_EQ(PathsOf(Image(path)), paths);
    test::WriteFile(path, bare.substr(0, index));
    const Image salvaged(path, Opening::Salvage);
    EXPECT_EQ(PathsOf(salvaged), paths);
    EXPECT_TRUE(salvaged.Problems().empty()) << salvaged.Problems().front().reason;
  }
}

// With a long name they are shown, and open no level either: whatever goes over the records says
// so.
TEST(NamedDots, OpenNoLevelWhoeverReadsThem) {
  test::ImageMaker image;
  image.BeginSection();
  for (const auto& [longName, name] : {std::pair("top", "..         "), {"in A", ".          "}}) {
    image.LongName(longName, name);
    image.Entry(name, kDirectoryAttribute);
    if (longName == std::string("top")) image.Folder("A          ");
  }
  image.SmallFile("F          ", 10);
  image.Close();
  image.SmallFile("G          ", 10);
  image.EndSection();
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  const std::string indexed = test::WriteIndexed(path, image);
  std::string unchecked = indexed;
  unchecked[image.Here()] = 'X';
  std::string damaged = indexed;
  damaged[indexed.find(".          ", indexed.find("A          "))] = '\x01';
  const std::vector<std::string> paths{"A/", "A/F", "A/in A/", "G", "top/"};
  for (const std::string& bytes : {indexed, unchecked, image.Bytes(), damaged}) {
    test::WriteFile(path, bytes);
    const Image salvaged(path, Opening::Salvage);
    EXPECT_EQ(PathsOf(salvaged), paths);
    EXPECT_EQ(salvaged.Problems().size(), bytes == damaged ? 1U : 0U);
    if (bytes != indexed) continue;
    EXPECT_EQ(PathsOf(Image(path)), paths);
    EXPECT_EQ(ClassPathsOf(path), (std::vector<std::string>{"A/", "A/F", "G"}));
    EXPECT_EQ(Verifier(path).Run([](const Fault&) {}).faults, 0U);
    std::vector<std::string> mapped;
    MapImage(path, [&](const MapItem& item) {
      if (item.kind == MapItem::Kind::DataBlock) mapped.push_back(item.path);
    });
    EXPECT_EQ(mapped, (std::vector<std::string>{"0:/A/F", "0:/G"}));
  }
}

// The short name stands for a long one that cannot be believed, also in the paths of what lies
// below, and everyone says so.
TEST(BadLongName, NamesNothingWhoeverReadsIt) {
  test::ImageMaker image;
  image.BeginSection();
  image.LongName("", "F          ");
  image.SmallFile("F          ", 10);
  image.LongName("of another", "B          ");
  image.Folder("A          ");
  image.SmallFile("G          ", 10);
  image.Close();
  image.EndSection();
  const test::TempDir folder;
  const std::string path = folder / "x.cap";
  test::WriteFile(path, image.Bytes());
  EXPECT_EQ(IndexWriter(path).Write(DamagedSections::IndexWhatIsLeft).problems.size(), 2U);
  const std::string indexed = test::ReadFile(path);
  for (const std::string& bytes : {indexed, image.Bytes()}) {
    test::WriteFile(path, bytes);
    const Image salvaged(path, Opening::Salvage);
    EXPECT_EQ(PathsOf(salvaged), (std::vector<std::string>{"A/", "A/G", "F"}));
    ASSERT_GE(salvaged.Problems().size(), 2U);
    EXPECT_NE(salvaged.Problems()[0].reason.find("empty"), std::string::npos);
    EXPECT_NE(salvaged.Problems()[1].reason.find("another short name"), std::string::npos);
    std::vector<std::string> mapped;
    const auto take = [&](const MapItem& item) {
      if (item.kind == MapItem::Kind::DataBlock) mapped.push_back(item.path);
    };
    EXPECT_EQ(MapImage(path, take).problems, 2U);
    EXPECT_EQ(mapped, (std::vector<std::string>{"0:/F", "0:/A/G"}));
  }
}

// Files that lie one in the other, each with a chain of records that comes to nothing far behind:
// to follow every chain would take the square of the image's size.
TEST(HostileChains, AreNotFollowedTimeAndAgain) {
  constexpr uint16_t kReach = 4800 - kMiniHeaderSize;  // to another record of the same kind
  test::ImageMaker image(false);
  image.BeginSection();
  for (int i = 0; i < 10'000; ++i) {
    const uint32_t file = image.Here();
    image.File("A          ", 512);
    image.IndexRecords().back() = {kIndexFile, "A", file, 48};
    image.Data(0, 0, std::string(kReach, 'd'));
    image.Bytes().resize(file + kDirRecordSize + kMiniHeaderSize);
  }
  image.IndexRecords().push_back({kIndexFile, "A", image.Here(), 48});  // nothing can be read there
  image.Bytes().resize(image.Here() + kReach);
  image.EndSection();
  const std::string bare = image.Bytes();
  const std::string unchecked = image.Finish();

  IndexChecksum checksum;
  const size_t records = bare.size() + kIndexPreamble;
  checksum.Update({test::Unsigned(unchecked) + records, unchecked.size() - records});
  const auto start = EncodeIndexStart(checksum.Value());
  std::string checked = unchecked;
  std::copy(start.begin(), start.end(), &checked[bare.size()]);

  const test::TempDir folder;
  const auto problems = [&](const std::string& bytes) {
    test::WriteFile(folder / "x.cap", bytes);
    const Image salvaged(folder / "x.cap", Opening::Salvage);
    return salvaged.Problems();
  };
  for (const std::string& bytes : {bare, unchecked}) {
    EXPECT_NE(problems(bytes).back().reason.find("what follows is left out"), std::string::npos);
  }
  const auto told = problems(checked);
  ASSERT_EQ(told.size(), 10'001U);
  EXPECT_NE(told.front().reason.find("no data block before"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(All, Salvage,
                         testing::Values("w_names.img", "w_files_only.img", "w_three_open.img",
                                         "f_16384_lzs.img", "h_compact_scrambled.img",
                                         "n_flat_old.img", "faults/w_drive_root.img"));

}  // namespace
}  // namespace capsule::host
