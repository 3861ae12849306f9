// Files with damaged records: every byte handed out as good is the source's, and little is lost.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "capsule/host/image.h"
#include "capsule/host/image_map.h"
#include "capsule/host/index_writer.h"
#include "capsule/partition/ntfs_format.h"
#include "tests/support/image_maker.h"
#include "tests/support/lzs_writer.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

constexpr uint64_t kChunk = 8192;
constexpr size_t kRecords = 40;
constexpr size_t kFirstStored = 25;  // records 25 to 27 are stored as they are
constexpr size_t kLastStored = 27;

// A record and, behind it, what hangs on it by way of matches: in this text at most half a chunk.
constexpr uint64_t kMaxLoss = kChunk + kChunk / 2;

// Words of many letters, so that few pairs of them come again by chance, with passages from far
// back said again.
std::string Story(size_t size) {
  std::mt19937 random(11);
  std::vector<std::string> words(4000);
  for (std::string& word : words) {
    for (size_t n = 2 + random() % 9; n > 0; --n) word += static_cast<char>(40 + random() % 200);
  }
  std::string text;
  while (text.size() < size) {
    if (random() % 50 == 0 && text.size() > 3000) {
      text += text.substr(text.size() - 300 - random() % 2500, 200);
    }
    text += words[random() % words.size()] + ' ';
  }
  text.resize(size);
  return text;
}

// What ReadDamaged hands out, checked for being in order and without gaps.
struct Outcome {
  std::string bytes;  // zeros where they are lost
  std::vector<LostRange> lost;
  std::string unplaced;
  uint64_t lostBytes = 0;
  bool isUncertain = false;
};

Outcome ReadAll(const std::string& path, uint64_t offset = 0, uint64_t length = 1 << 30) {
  const Image image(path);
  Outcome outcome;
  image.ReadDamaged(*image.Find("0:/FILE"), offset, length, [&](const FilePiece& piece) {
    if (piece.kind == FilePiece::Kind::Uncertain) {
      outcome.isUncertain = true;
      return;
    }
    if (piece.kind == FilePiece::Kind::Unplaced) {
      outcome.unplaced.append(piece.bytes.begin(), piece.bytes.end());
      return;
    }
    EXPECT_EQ(piece.offset, offset + outcome.bytes.size());
    outcome.bytes.append(piece.bytes.begin(), piece.bytes.end());
    if (piece.kind != FilePiece::Kind::Lost) return;
    outcome.bytes.append(piece.length, '\0');
    outcome.lostBytes += piece.length;
    outcome.lost.push_back(*LostIn(piece));
  });
  return outcome;
}

class DamagedFile : public testing::Test {
 protected:
  DamagedFile() : m_Story(Story(kRecords * kChunk - 1000)) {
    test::ImageMaker maker(true);
    maker.BeginSection();
    maker.File("FILE       ", static_cast<uint32_t>(m_Story.size()));
    test::LzsWriter writer;
    for (size_t i = 0; i < kRecords; ++i) {
      m_At.push_back(maker.Here());
      const bool isLast = i + 1 == kRecords;
      std::string chunk = m_Story.substr(i * kChunk, kChunk);
      chunk.resize((chunk.size() + 511) / 512 * 512);
      if (i >= kFirstStored && i <= kLastStored) {
        maker.Data(0, 0, chunk);
        continue;
      }
      const auto unit = writer.Unit(test::Bytes(chunk.begin(), chunk.end()));
      maker.Data(isLast ? 1 : 0, static_cast<uint32_t>(chunk.size()),
                 std::string(unit.begin(), unit.end()));
    }
    m_At.push_back(maker.Here());
    maker.File("OTHER      ", 0);
    maker.EndSection();
    test::WriteFile(m_Path, maker.Finish());
    IndexWriter(m_Path).Write();
    m_Whole = test::ReadFile(m_Path);
  }

  void Save(const std::string& bytes) const { test::WriteFile(m_Path, bytes); }

  // Every byte that is not lost is the source's. When nothing is lost, a stored byte or a literal
  // may be another, and only the check value tells that.
  void ExpectHonest(const Outcome& outcome, const std::string& what) const {
    ASSERT_EQ(outcome.bytes.size(), m_Story.size()) << what;
    EXPECT_TRUE(outcome.isUncertain) << what << ": nothing told";
    if (outcome.lost.empty()) return;
    std::string expected = m_Story;
    for (const LostRange& lost : outcome.lost) {
      std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(lost.offset), lost.length, '\0');
    }
    const auto wrong = std::mismatch(expected.begin(), expected.end(), outcome.bytes.begin());
    EXPECT_EQ(wrong.first - expected.begin(), static_cast<std::ptrdiff_t>(expected.size()))
        << what << ": wrong byte handed out as good";
  }

  test::TempDir m_Dir;
  std::string m_Path = m_Dir / "x.cap";
  std::string m_Story;
  std::string m_Whole;
  std::vector<size_t> m_At;  // where the records begin, and their end
};

TEST_F(DamagedFile, LosesARecordAndWhatHangsOnItWhateverIsDamaged) {
  uint64_t most = 0;
  for (const size_t record : {size_t{0}, size_t{1}, size_t{12}, kFirstStored - 1, kFirstStored,
                              kLastStored, kLastStored + 1, kRecords - 1}) {
    const size_t size = m_At[record + 1] - m_At[record];
    for (const size_t at : {size_t{0}, size_t{1}, size_t{2}, size_t{3}, size_t{4}, size_t{6},
                            size_t{7}, size_t{8}, size_t{20}, size / 2, size - 1}) {
      for (const int change : {0x01, 0x20, 0x80, 0xFF}) {
        std::string bytes = m_Whole;
        bytes[m_At[record] + at] = static_cast<char>(bytes[m_At[record] + at] ^ change);
        Save(bytes);
        const std::string what = "record " + std::to_string(record) + ", byte " +
                                 std::to_string(at) + " ^ " + std::to_string(change);
        const Outcome outcome = ReadAll(m_Path);
        ExpectHonest(outcome, what);
        // A header alone can be made again from what is around it.
        EXPECT_LE(outcome.lostBytes, at < kMiniHeaderSize ? 0 : kMaxLoss) << what;
        EXPECT_EQ(outcome.unplaced, "") << what;
        most = std::max(most, outcome.lostBytes);
        // What lies before the damage is all there.
        if (!outcome.lost.empty()) {
          EXPECT_GE(outcome.lost[0].offset, record * kChunk) << what;
        }
      }
    }
  }
  EXPECT_GT(most, kChunk);  // else nothing hung on anything
  RecordProperty("most_bytes_lost", std::to_string(most));
}

TEST_F(DamagedFile, SeveralDamagesAreToldApart) {
  const auto breakAt = [&](std::string& bytes, size_t record, size_t at) {
    bytes[m_At[record] + at] = static_cast<char>(bytes[m_At[record] + at] ^ 0x15);
  };
  std::string bytes = m_Whole;
  breakAt(bytes, 3, 6);    // length
  breakAt(bytes, 10, 0);   // type
  breakAt(bytes, 30, 7);   // length
  breakAt(bytes, 35, 40);  // payload: with this one or without
  Save(bytes);
  Outcome outcome = ReadAll(m_Path);
  ExpectHonest(outcome, "four damages");
  EXPECT_LE(outcome.lostBytes, 4 * kMaxLoss);
  EXPECT_EQ(outcome.unplaced, "");

  // Two records in each of two places: what lies between may be anywhere.
  bytes = m_Whole;
  breakAt(bytes, 5, 6);
  breakAt(bytes, 6, 6);
  breakAt(bytes, 20, 6);
  breakAt(bytes, 21, 6);
  Save(bytes);
  outcome = ReadAll(m_Path);
  ExpectHonest(outcome, "unknown place");
  ASSERT_GE(outcome.lost.size(), 1U);
  EXPECT_EQ(outcome.lost[0].offset, 5 * kChunk);
  EXPECT_GE(outcome.lost[0].length, (22 - 5) * kChunk);
  EXPECT_LE(outcome.lostBytes, (22 - 5) * kChunk + kChunk / 2);
  // It is handed out for those who want it at any place.
  ASSERT_GT(outcome.unplaced.size(), 12 * kChunk);
  EXPECT_TRUE(outcome.unplaced.ends_with(m_Story.substr(18 * kChunk, 2 * kChunk)));

  // A range over the loss, cut to what was asked for.
  outcome = ReadAll(m_Path, 4 * kChunk + 100, 2 * kChunk);
  ASSERT_EQ(outcome.lost.size(), 1U);
  EXPECT_EQ(outcome.lost[0].offset, 5 * kChunk);
  EXPECT_EQ(outcome.lost[0].length, kChunk + 100);
  EXPECT_EQ(outcome.bytes.size(), 2 * kChunk);
  EXPECT_EQ(outcome.bytes.substr(0, kChunk - 100), m_Story.substr(4 * kChunk + 100, kChunk - 100));
}

TEST_F(DamagedFile, RandomDamageNeverMakesAWrongByteGood) {
  std::mt19937 random(3);
  uint64_t lost = 0;
  for (int run = 0; run < 400; ++run) {
    std::string bytes = m_Whole;
    const size_t at = m_At[0] + random() % (m_At[kRecords] - m_At[0]);
    // A byte, or in compressed records a torn stretch that breaks every unit it meets.
    const bool isTorn =
        run % 2 != 0 && (at + 600 < m_At[kFirstStored] || at > m_At[kLastStored + 1]);
    for (size_t i = at; i < std::min(at + (isTorn ? 600 : 1), m_At[kRecords]); ++i) {
      bytes[i] = static_cast<char>(bytes[i] ^ static_cast<char>(1 + random() % 255));
    }
    Save(bytes);
    const Outcome outcome = ReadAll(m_Path);
    ExpectHonest(outcome, "run " + std::to_string(run) + " at " + std::to_string(at));
    EXPECT_LE(outcome.lostBytes, 2 * kMaxLoss) << "run " << run;
    lost += outcome.lostBytes;
  }
  EXPECT_GT(lost, 0U);
}

TEST_F(DamagedFile, WholeFilesAndStoredBytesThatChanged) {
  EXPECT_EQ(ReadAll(m_Path).bytes, m_Story);
  EXPECT_FALSE(ReadAll(m_Path).isUncertain);
  std::string bytes = m_Whole;
  bytes[m_At[kFirstStored] + 1000] ^= 1;
  Save(bytes);
  const Outcome outcome = ReadAll(m_Path);
  EXPECT_TRUE(outcome.isUncertain);  // only the check value tells
  EXPECT_EQ(outcome.lostBytes, 0U);
}

// A volume's files: a resident one has no data records to lose, others lose what is damaged.
TEST(DamagedNtfsFile, LosesRecordsOfAnNtfsPartition) {
  const test::TempDir folder;
  const std::string path = folder / "n.img";
  const std::string whole =
      test::ReadFile(std::string(CAPSULE_TEST_DATA) + "/images/n_flat_old.img");
  test::WriteFile(path, whole);
  std::vector<MapItem> records;
  MapImage(path, [&](const MapItem& item) {
    if (item.kind == MapItem::Kind::NtfsRecord && IsNtfsData(item.type)) records.push_back(item);
  });
  const auto read = [&](const std::string& file, std::vector<LostRange>* lost) {
    std::string bytes;
    const Image image(path);
    image.ReadDamaged(*image.Find(file), 0, 1 << 30, [&](const FilePiece& piece) {
      if (piece.kind == FilePiece::Kind::Data) bytes.append(piece.bytes.begin(), piece.bytes.end());
      if (piece.kind == FilePiece::Kind::Lost) bytes.append(piece.length, '\0');
      if (const auto range = LostIn(piece)) lost->push_back(*range);
    });
    return bytes;
  };
  std::vector<LostRange> none;
  std::map<std::string, std::string> files;
  const Image image(path);
  for (const Entry& entry : image.Root(0).Children()) {
    if (entry.IsDirectory() || entry.Name().starts_with('$')) continue;
    files[entry.Path()] = read(entry.Path(), &none);
    EXPECT_EQ(files[entry.Path()].size(), entry.Size());
  }
  EXPECT_TRUE(none.empty());

  std::mt19937 random(23);
  uint64_t hits = 0;
  for (const MapItem& record : records) {
    const std::string file = "0:/" + record.path.substr(record.path.rfind('/') + 1);
    if (!files.contains(file)) continue;
    std::string bytes = whole;
    const size_t header = kNtfsHeaderSize;
    const size_t at = record.offset + (hits % 2 == 0 ? 2 : header + 10);  // type, or payload
    const size_t end = std::min<size_t>(at + 40, record.offset + record.length);
    for (size_t i = at; i < end; ++i) bytes[i] = static_cast<char>(random());
    test::WriteFile(path, bytes);
    std::vector<LostRange> lost;
    const std::string found = read(file, &lost);
    std::string expected = files[file];
    ASSERT_EQ(found.size(), expected.size()) << file;
    for (const LostRange& range : lost) {
      if (range.isUncertain) continue;
      std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(range.offset), range.length, 0);
    }
    const bool isStored = record.text.find("stored") != std::string::npos;
    if (!isStored || hits % 2 == 0) {
      EXPECT_FALSE(lost.empty()) << file << " at " << record.offset;
      EXPECT_TRUE(found == expected) << file << " at " << record.offset;
    }
    ++hits;
  }
  EXPECT_GT(hits, 4U);
}

}  // namespace
}  // namespace capsule::host
