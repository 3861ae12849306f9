#include "capsule/host/verifier.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>

#include "capsule/host/error.h"
#include "capsule/host/image.h"
#include "capsule/host/image_map.h"
#include "tests/host/small_image.h"
#include "tests/support/bytes.h"
#include "tests/support/entries.h"
#include "tests/support/sample_images.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

using test::SamplePath;

const char* const kSamples[] = {"w_files_only.img", "w_names.img",    "w_three_open.img",
                                "f_16384_lzs.img",  "n_flat_old.img", "h_compact_scrambled.img"};

std::string Spelled(const std::vector<Fault>& faults) {
  std::string text;
  for (const Fault& fault : faults) {
    text += std::to_string(fault.offset) + " [" + fault.path + "] " + fault.reason + "\n";
  }
  return text;
}

// The same with any number of threads.
std::vector<Fault> FaultsOf(const std::string& path) {
  std::vector<Fault> first;
  for (const int jobs : {1, 3}) {
    std::vector<Fault> faults;
    const VerifyReport report =
        Verifier(path).Run([&](const Fault& fault) { faults.push_back(fault); }, {.jobs = jobs});
    EXPECT_EQ(report.faults, faults.size());
    if (jobs == 1) first = faults;
    EXPECT_EQ(Spelled(faults), Spelled(first));
  }
  return first;
}

void ExpectFault(const std::vector<Fault>& faults, uint64_t offset, const std::string& path,
                 const std::string& reason) {
  const auto isIt = [&](const Fault& fault) {
    return fault.offset == offset && fault.path == path &&
           fault.reason.find(reason) != std::string::npos;
  };
  EXPECT_TRUE(std::any_of(faults.begin(), faults.end(), isIt))
      << "no fault at " << offset << " [" << path << "] " << reason << " in\n"
      << Spelled(faults);
}

std::vector<MapItem> MapOf(const std::string& path) {
  std::vector<MapItem> items;
  MapImage(path, [&](const MapItem& item) { items.push_back(item); });
  return items;
}

// Items follow each other without a hole, and what is accounted for is what is no gap.
MapSummary ExpectWholeMap(const std::string& path) {
  const uint64_t size = std::filesystem::file_size(path);
  uint64_t items = 0;
  uint64_t position = 0;
  uint64_t gaps = 0;
  const MapSummary summary = MapImage(path, [&](const MapItem& item) {
    ++items;
    if (item.kind == MapItem::Kind::Overlap) return;
    EXPECT_LE(item.offset, position) << item.text << item.problem;
    position = std::max(position, std::min(item.offset + item.length, size));
    if (item.kind == MapItem::Kind::Gap) gaps += item.length;
  });
  EXPECT_EQ(summary.fileBytes, size);
  EXPECT_EQ(position, size);
  EXPECT_EQ(summary.accountedBytes + gaps, size);
  EXPECT_EQ(summary.items, items);
  return summary;
}

// One folder with a file of 700 bytes in two records and one of 10 bytes, and the index.
class VerifierTest : public testing::Test {
 protected:
  static constexpr uint32_t kSection = 7560;
  static constexpr uint32_t kFolder = kSection + 2056;
  static constexpr uint32_t kOne = kFolder + 3 * 40;
  static constexpr uint32_t kOneData = kOne + 40;
  static constexpr uint32_t kOneSecond = kOneData + 520;
  static constexpr uint32_t kTwo = kOneSecond + 520;
  static constexpr uint32_t kTwoData = kTwo + 40;
  static constexpr uint32_t kTrailer = kTwoData + 520 + 40;
  static constexpr uint32_t kIndex = kTrailer + 1544;

  std::vector<Fault> Patched(std::string bytes, size_t at, std::string_view patch) {
    test::WriteFile(m_path, bytes.replace(at, patch.size(), patch));
    return FaultsOf(m_path);
  }

  test::TempDir m_directory;
  std::string m_path = m_directory / "i";
  const std::string m_bare = test::TwoFiles().Bytes();
  const std::string m_whole = test::WriteIndexed(m_path, test::TwoFiles());  // with an index
};

TEST_F(VerifierTest, CleanImagesAreCleanAndAccountedForToTheLastByte) {
  std::vector<std::string> paths{m_path, m_directory / "bare"};
  test::WriteFile(paths[1], m_bare);
  for (const char* sample : kSamples) paths.push_back(SamplePath(sample));
  for (const std::string& path : paths) {
    EXPECT_EQ(Spelled(FaultsOf(path)), "") << path;
    const MapSummary map = ExpectWholeMap(path);
    EXPECT_EQ(map.accountedBytes, map.fileBytes) << path;
    EXPECT_EQ(map.problems, 0u) << path;
  }
  EXPECT_EQ(Verifier(m_path).Run([](const Fault&) {}).bytes, 710u);
}

// Without check values: structure and content alone show where the damage is.
TEST_F(VerifierTest, EachKindOfDamageIsNamedByOffsetAndFile) {
  struct Case {
    size_t at;
    std::string_view patch;
    uint64_t offset;
    const char* path;
    const char* reason;
  };
  const char* const one = "0:/FOLDER/ONE.BIN";
  const char* const two = "0:/FOLDER/TWO.BIN";
  const Case cases[] = {
      {kSection, "x", kSection, "", "does not begin with AB CD"},
      {kSection + 512, "x", kSection + 512, "", "record is not one of type 23"},
      {kFolder + 1, "\5", kFolder, "0:/FOLDER", "flag is 5, not 1"},
      {kOne + 2, "\5", kOne, one, "param is 5, not 0"},
      {kOne + 6, "\5", kOne, "0:/FOLDER", "no record begins here; 1080 bytes"},
      {kOne + 36, std::string_view("\0\0\0\0", 4), kOneData, one, "belongs to no file"},
      {kOne + 36, std::string_view("\0\10\0\0", 4), kOneSecond, one, "but ends at 1024 of 2048"},
      {kOneData, "\x63", kOneData, one, "no record begins here; 1040 bytes"},
      {kOneData + 1, "\1", kOneSecond, one, "behind the last one of its file"},
      {kOneData + 1, "\3", kOneData, one, "flag is 3"},
      {kOneData + 6, std::string_view("\7\3", 2), kOneData, one, "chunk is 775 bytes"},
      {kOneSecond + 1, std::string_view("\0", 1), kOneSecond, one, "not marked as the last"},
      {kOneSecond + 7, "\1", kOneSecond, one, "chunk is 256 bytes"},
      {kTwoData + 6, "\xff\xff", kTwoData, two, "no record begins here"},
      {kTrailer + 1540, "x", kTrailer, "", "last 40 bytes of the trailer are not zero"},
  };
  for (const Case& damage : cases) {
    SCOPED_TRACE(std::to_string(damage.at) + " " + damage.reason);
    const auto faults = Patched(m_bare, damage.at, damage.patch);
    ExpectFault(faults, damage.offset, damage.path, damage.reason);
    ExpectWholeMap(m_path);
  }
  std::string both = m_bare;  // a fault does not hide the next
  both[kOneData] = 9;
  const auto faults = Patched(both, kTwoData + 1, "\2");
  ExpectFault(faults, kOneData, one, "no record begins here");
  ExpectFault(faults, kTwoData, two, "flag is 2");
}

TEST_F(VerifierTest, CheckValuesShowWhatStructureDoesNot) {
  const auto content = Patched(m_whole, kOneData + 20, "x");
  ExpectFault(content, kOne, "0:/FOLDER/ONE.BIN", "check value of the item");
  ExpectFault(content, kSection, "", "check value of the section");
  EXPECT_EQ(content.size(), 2u) << Spelled(content);
  const auto header = Patched(m_whole, 300, "x");
  ExpectFault(header, 0, "", "check value of the header");
  EXPECT_EQ(header.size(), 1u) << Spelled(header);
  const auto label = Patched(m_whole, m_whole.find("FOLDER/TWO.BIN", kIndex), "f");
  ExpectFault(label, kIndex, "", "check value of the index");
  ExpectFault(Patched(m_whole, kIndex, "x"), kIndex + 7, "", "has check values, but none of its");
  EXPECT_FALSE(Patched(m_whole, m_whole.size(), "x").empty());
  for (size_t at = 0; at < m_whole.size(); at += at < kIndex ? 41 : 3) {
    if (at >= kTrailer + 8 && at < kIndex - 40) continue;  // opaque, without a check value
    const char other[] = {static_cast<char>(m_whole[at] ^ 0x55)};
    try {
      EXPECT_FALSE(Patched(m_whole, at, {other, 1}).empty()) << at;
    } catch (const Error&) {  // not an image any more
      EXPECT_LT(at, 7560u);
    }
  }
}

TEST_F(VerifierTest, AnIndexMustNameWhatIsThereAndAllOfIt) {
  // The record of TWO.BIN, which then names its data.
  const size_t record = m_whole.find("FOLDER/TWO.BIN", kIndex) + 14;
  const auto faults = Patched(m_whole, record, test::Hex("F0"));
  ExpectFault(faults, kTwo, "0:/FOLDER/TWO.BIN", "the index does not name what begins here");
  ExpectFault(faults, record - 17, "0:/FOLDER/TWO.BIN", "where no item begins");
}

// Of any image, damaged or not, the map calls every item what the tree calls it.
TEST_F(VerifierTest, AMapNamesWhatTheTreeNames) {
  size_t compared = 0;
  const auto compare = [&](const std::string& path) {
    std::map<uint64_t, std::string> mapped;
    for (const MapItem& item : MapOf(path)) {
      const bool isNtfs = item.kind == MapItem::Kind::NtfsRecord;  // their folders are left out
      if (item.beginsEntry && !isNtfs) mapped[item.offset] = item.path;
    }
    const Image image(path, Opening::Salvage);
    test::ForEachEntry(image, [&](const Entry& entry) {
      const auto found = mapped.find(entry.Offset());
      if (found == mapped.end() || entry.IsRoot()) return;
      ++compared;
      EXPECT_EQ(found->second, entry.Path()) << path;
    });
  };
  for (const auto& sample :
       std::filesystem::recursive_directory_iterator(CAPSULE_TEST_DATA "/images")) {
    if (!sample.path().string().ends_with(".img")) continue;
    try {
      compare(sample.path().string());
    } catch (const Error&) {  // no image
    }
  }
  EXPECT_GT(compared, 200U);
  for (const std::string& whole : {m_bare, m_whole}) {
    for (size_t at = kFolder; at < kTrailer; at += at < kOneData ? 8 : 40) {
      std::string bytes = whole;
      test::WriteFile(m_path, bytes.replace(at, 1, "\x77"));
      SCOPED_TRACE(at);
      compare(m_path);
    }
  }
}

// What has such a name is then called by its short one.
TEST_F(VerifierTest, LongNamesMustBelongToTheirShortName) {
  const std::string whole = test::ReadFile(SamplePath("w_names.img"));
  const Image image(SamplePath("w_names.img"));
  std::vector<MapItem> pieces = MapOf(SamplePath("w_names.img"));
  std::erase_if(pieces, [](const MapItem& i) { return i.kind != MapItem::Kind::LongName; });
  ASSERT_GT(pieces.size(), 40u);
  for (const size_t n : {size_t{0}, size_t{17}, size_t{40}}) {
    const MapItem& piece = pieces[n];
    const auto at = static_cast<size_t>(piece.offset);
    const std::string path = piece.path.substr(0, piece.path.rfind('/') + 1) +
                             std::string(image.Find(piece.path.substr(3))->ShortName());
    ExpectFault(Patched(whole, at + 8, "\x3f"), piece.offset, path, "ordinal is 0x3f");
    const char other[] = {static_cast<char>(whole[at + 21] + 1)};
    ExpectFault(Patched(whole, at + 21, {other, 1}), piece.offset, path, "checksum is 0x");
  }
}

TEST_F(VerifierTest, UnitsMustDecodeToWhatTheyState) {
  const std::string whole = test::ReadFile(SamplePath("f_16384_lzs.img"));
  const char* const file = "0:/DATA/C.BIN";
  const auto items = MapOf(SamplePath("f_16384_lzs.img"));
  const auto block = std::find_if(items.begin(), items.end(), [&](const MapItem& item) {
    return item.kind == MapItem::Kind::DataBlock && item.path == file;
  });
  ASSERT_NE(block, items.end());
  const auto at = static_cast<size_t>(block->offset);
  ExpectFault(Patched(whole, at + 3, "\x42"), at, file, "decodes to 16384 bytes instead of 16896");
  ExpectFault(Patched(whole, at + 3, "\x3e"), at, file, "decodes to more than");
}

TEST_F(VerifierTest, TruncatedAndDamagedImagesAreMappedToTheLastByte) {
  for (const char* sample : kSamples) {
    const std::string whole = test::ReadFile(SamplePath(sample));
    std::mt19937 random(7);
    for (int i = 0; i < 60; ++i) {
      std::string bytes = whole;
      if (i % 2 == 0) {
        bytes.resize(random() % whole.size());
      } else {
        for (int k = 0; k < 20; ++k) bytes[random() % whole.size()] ^= static_cast<char>(random());
      }
      test::WriteFile(m_path, bytes);
      SCOPED_TRACE(std::string(sample) + " " + std::to_string(i));
      ExpectWholeMap(m_path);
      try {
        const auto faults = FaultsOf(m_path);
        EXPECT_TRUE(i % 2 == 1 || !faults.empty());
      } catch (const Error&) {  // not an image any more
      }
    }
  }
}

}  // namespace
}  // namespace capsule::host
