// The inner rules of a survey, one by one: what damage leaves is spelled a letter an item.
#include <gtest/gtest.h>

#include <algorithm>

#include "capsule/host/file/file_window.h"
#include "capsule/host/sections/section_resync.h"
#include "capsule/host/sections/survey_outline.h"
#include "capsule/host/sections/survey_repair.h"
#include "tests/host/small_image.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;

_ShortDirEntry EntryOf(std::string_view name, uint8_t attribute) {
  _ShortDirEntry entry{};
  std::fill(std::begin(entry.Name), std::end(entry.Name), uint8_t{' '});
  std::fill(std::begin(entry.Extension), std::end(entry.Extension), uint8_t{' '});
  std::copy(name.begin(), name.end(), entry.Name);
  entry.Attribute = attribute;
  return entry;
}

// S section, T trailer, D folder, F file, 0 zero entry, '.' and ':' the folder's own two; n a dot
// with a long name; d a folder's zero entry that is not zero, f a file's; z a file that mostly is
// zero; ? a lost record, # one behind which data is left.
SurveyItem ItemOf(char letter, size_t place) {
  SurveyItem found;
  SectionItem& item = found.item;
  item.offset = place * kDirRecordSize;
  item.length = letter == 'n' ? 2 * kDirRecordSize : kDirRecordSize;
  item.dataOffset = item.offset + item.length;
  const bool isFolder = std::string_view("Dd.:n").find(letter) != std::string_view::npos;
  item.entry = EntryOf(letter == ':'                    ? ".."
                       : letter == '.' || letter == 'n' ? "."
                                                        : "NAME",
                       isFolder ? 0x10 : 0x20);
  if (letter == 'z') item.entry = {};
  item.entry.WriteDate = letter == 'z' ? 1 : 0;
  if (letter == '0') item.entry = {};
  if (letter == 'd' || letter == 'f') item.entry.Name[0] = 0;
  const auto is = [&](const char* letters) { return std::string_view(letters).find(letter) < 9; };
  item.kind = is("S")     ? Kind::Section
              : is("T")   ? Kind::Trailer
              : is("D")   ? Kind::Directory
              : is(".:n") ? Kind::DotEntry
              : is("0df") ? Kind::ZeroEntry
                          : Kind::File;
  if (is("DFn")) item.name = item.shortName = "NAME";
  found.isGap = is("?#");
  found.hasData = is("#");
  found.lost = is("?") ? kDirRecordSize : 0;
  return found;
}

// P a folder that was made up; ',' a lost record that hides nothing.
char LetterOf(const SurveyItem& found) {
  if (found.isPlaceholder) return 'P';
  if (found.isGap) return found.hasData ? '#' : found.lost > 0 ? '?' : ',';
  return found.item.kind == Kind::DotEntry && found.item.IsEntry()
             ? 'n'
             : "SD.0FT"[static_cast<int>(found.item.kind)];
}

TEST(SurveyRules, RepairGoesByNeighbours) {
  // Behind "D.:0", which shows that folders have their own two.
  const struct {
    const char* damaged;
    const char* repaired;
    int told;
  } cases[] = {
      {"D.:F0FT", "D..F0FT", 0},
      {"D.:..:F0", "D.....F0", 0},  // and a separator behind
      {"..:F", "...F", 0},          // of no folder
      {"F.:F0", "D..F0", 1},        // the attribute is damaged
      {"DF", "FF", 1},              // the attribute is damaged
      {"Dn.:0", "FnP..0", 2},       // one with a long name is not the folder's own
      {"DF:F0", "D..F0", 1},        // the first name is damaged
      {"D.DF0", "D..F0", 1},        // the second name is damaged
      {"D..F0", "D..F0", 0},
      {".:F0", "P..F0", 1},        // the folder is lost
      {"D.:.:F0", "D..P..F0", 1},  // and so behind a folder
      {"D?:F0", "D,.F0", 0},       // they have their own two
      {"D.?F0", "D.,F0", 0},
      {"F?F", "F?F", 0},
      {"d.:F0", "D..F0", 1},  // no zero entries
      {"fFT", "FFT", 1},
      {"D.:Fz", "D..F0", 1},  // one
      {"D#F", "F#F", 1},      // folders have no data
  };
  for (const auto& [damaged, repaired, told] : cases) {
    std::vector<SurveyItem> items;
    for (const char letter : std::string("SD.:0D.:0") + damaged) {
      items.push_back(ItemOf(letter, items.size()));
    }
    int count = 0;
    SurveyVisitor visitor;
    visitor.onDamage = [&](uint64_t, const std::string&) { ++count; };
    std::string found;
    for (const SurveyItem& item : MendSection(items, visitor)) found += LetterOf(item);
    EXPECT_EQ(found, std::string("SD..0D..0") + repaired) << damaged;
    EXPECT_EQ(count, told) << damaged;
  }
}

// Names as readers spell them, '|' between; of each what is at its place, '?' when it is not told.
TEST(SurveyRules, AnIndexTellsKindsWhenItNamesDots) {
  constexpr std::pair<const char*, const char*> kCases[] = {
      {"A|F|", "???"},
      {"A|.|..|F|", "D..F0"},
      {"A|.       .   |..      .   |F|", "D..F0"},
      {"A|.|..|B|.|..||", "D..D..0"},
      {"A|.|..|.|.|..|F", "D.....F"},  // and a separator behind
      {"A|.|.|..|F", "F...F"},         // of no folder
      {"A|.|B|F", "??FF"},             // one of them is damaged
      {"A|B|..|F|C|.|..", "F??FD.."},
      {"..A|.|..|.b", "D..F"},
  };
  for (const auto& [names, kinds] : kCases) {
    IndexContents index;
    index.records.push_back({kIndexSection, "", 0, 0});
    const std::string_view text(names);
    for (size_t at = 0; at <= text.size(); at = text.find('|', at) + 1) {
      const auto offset = static_cast<uint32_t>(index.records.size() * kDirRecordSize);
      index.records.push_back({kIndexZeroEntry,
                               std::string(text.substr(at, text.find('|', at) - at)), offset,
                               kDirRecordSize});
      if (text.find('|', at) == text.npos) break;
    }
    const uint64_t limit = (index.records.size() + 2) * kDirRecordSize;
    const SurveyOutline outline(index, limit);
    std::string found;
    for (size_t i = 1; i <= std::string_view(kinds).size(); ++i) {
      const auto* item = outline.At(i * kDirRecordSize);
      ASSERT_NE(item, nullptr) << names;
      EXPECT_EQ(item->end, (i + 1) * kDirRecordSize);
      found += item->kind ? "SD.0FT"[static_cast<int>(*item->kind)] : '?';
    }
    EXPECT_EQ(found, kinds) << names;
  }
}

TEST(SurveyRules, ASearchStopsAtRecordsAndStepsOverData) {
  test::ImageMaker made;
  const uint32_t header = made.Here();
  made.BeginSection();
  made.Entry("F          ", 0x20, 512);
  made.Data(512, true);
  made.EndSection();
  const std::string section = made.Bytes().substr(header);
  const std::string entry = section.substr(kPartitionHeaderSize, kDirRecordSize);
  const std::string data = section.substr(kPartitionHeaderSize + kDirRecordSize, 520);
  const std::string trailer = section.substr(kPartitionHeaderSize + kDirRecordSize + 520);
  std::string likeEntry = data;  // a file that holds a record
  likeEntry.replace(100, entry.size(), entry);
  std::string badEntry = entry;  // leads to a record all the same
  badEntry[1] = 7;
  std::string zeroEntry = entry;
  zeroEntry[kMiniHeaderSize] = 0;  // the rest is not zero
  const struct {
    std::string bytes;
    std::vector<uint32_t> known;
    int64_t offset;  // or -1
    bool startsSection;
    uint64_t dataBytes;
  } cases[] = {
      {entry, {}, 0, false, 0},
      {"abc" + entry, {}, 3, false, 0},
      {trailer, {}, 0, false, 0},
      {data + entry, {}, 520, false, 520},
      {likeEntry + data + entry, {}, 1040, false, 1040},
      {"x" + data + entry, {}, 521, false, 520},
      {badEntry + likeEntry + entry, {}, 560, false, 520},
      {zeroEntry + entry, {}, 40, false, 0},
      {"xy" + section, {}, 2, true, 0},
      {"abc" + entry, {2}, 2, true, 0},
      {"abc" + entry.substr(0, 39), {}, -1, false, 0},
      {std::string(5000, '\x16'), {}, -1, false, 0},
  };
  const test::TempDir folder;
  for (size_t i = 0; i < std::size(cases); ++i) {
    const std::string path = folder / std::to_string(i);
    test::WriteFile(path, cases[i].bytes);
    FileWindow window(ImageFile(FileSource(path), path));
    uint64_t work = 1 << 20;
    const auto found =
        FindResumePoint(window, 0, {cases[i].bytes.size(), {}, cases[i].known, &work});
    ASSERT_EQ(found ? static_cast<int64_t>(found->offset) : -1, cases[i].offset) << i;
    if (!found) continue;
    EXPECT_EQ(found->startsSection, cases[i].startsSection) << i;
    EXPECT_EQ(found->dataBytes, cases[i].dataBytes) << i;
  }
}

}  // namespace
}  // namespace capsule::host
