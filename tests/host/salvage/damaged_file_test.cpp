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

using Kind = FilePiece::Kind;

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

constexpr uint64_t kToTheEnd = 1 << 30;

Outcome ReadRange(const std::string& path, uint64_t offset = 0, uint64_t length = kToTheEnd,
                  const std::string& file = "0:/FILE") {
  const Image image(path);
  Outcome outcome;
  image.ReadDamaged(*image.Find(file), offset, length, [&](const FilePiece& piece) {
    if (piece.kind == Kind::Uncertain) outcome.isUncertain = true;
    if (piece.kind == Kind::Unplaced) {
      outcome.unplaced.append(piece.bytes.begin(), piece.bytes.end());
    }
    if (piece.kind != Kind::Data && piece.kind != Kind::Lost) return;
    EXPECT_EQ(piece.offset, offset + outcome.bytes.size());
    outcome.bytes.append(piece.bytes.begin(), piece.bytes.end());
    if (piece.kind == Kind::Data) return;
    outcome.bytes.append(piece.length, '\0');
    outcome.lostBytes += piece.length;
    outcome.lost.push_back(*LostIn(piece));
  });
  return outcome;
}

// Every byte that is not lost is the source's.
void ExpectOnlyLosses(const Outcome& outcome, std::string source, const std::string& what) {
  for (const LostRange& lost : outcome.lost) {
    source.replace(lost.offset, lost.length, lost.length, '\0');
  }
  const auto wrong = std::mismatch(source.begin(), source.end(), outcome.bytes.begin());
  EXPECT_EQ(wrong.first - source.begin(), std::ssize(source))
      << what << ": wrong byte handed out as good";
}

class DamagedFile : public testing::Test {
 protected:
  DamagedFile() : m_story(Story(kRecords * kChunk - 1000)) {
    test::ImageMaker maker(true);
    maker.BeginSection();
    maker.File("FILE       ", static_cast<uint32_t>(m_story.size()));
    test::LzsWriter writer;
    for (size_t i = 0; i < kRecords; ++i) {
      m_at.push_back(maker.Here());
      std::string chunk = m_story.substr(i * kChunk, kChunk);
      chunk.resize((chunk.size() + 511) / 512 * 512);
      if (i >= kFirstStored && i <= kLastStored) {
        maker.Data(0, 0, chunk);
        continue;
      }
      const auto unit = writer.Unit(test::Bytes(chunk.begin(), chunk.end()));
      maker.Data(i + 1 == kRecords ? 1 : 0, static_cast<uint32_t>(chunk.size()),
                 std::string(unit.begin(), unit.end()));
    }
    m_at.push_back(maker.Here());
    maker.File("OTHER      ", 0);
    maker.EndSection();
    test::WriteFile(m_path, maker.Finish());
    static_cast<void>(IndexWriter(m_path).Write());
    m_whole = test::ReadFile(m_path);
  }

  Outcome Read(const std::string& bytes) const {
    test::WriteFile(m_path, bytes);
    return ReadRange(m_path);
  }

  // Changes bytes at these places of these records.
  Outcome Break(const std::vector<std::pair<size_t, size_t>>& places, int change = 0x15) const {
    std::string bytes = m_whole;
    for (const auto& [record, at] : places) {
      bytes[m_at[record] + at] = static_cast<char>(bytes[m_at[record] + at] ^ change);
    }
    return Read(bytes);
  }

  // When nothing is lost, a stored byte or a literal may be another, and only the check value tells
  // that.
  void ExpectHonest(const Outcome& outcome, const std::string& what) const {
    ASSERT_EQ(outcome.bytes.size(), m_story.size()) << what;
    EXPECT_TRUE(outcome.isUncertain) << what << ": nothing told";
    if (!outcome.lost.empty()) ExpectOnlyLosses(outcome, m_story, what);
  }

  test::TempDir m_dir;
  std::string m_path = m_dir / "x.cap";
  std::string m_story;
  std::string m_whole;
  std::vector<size_t> m_at;  // where the records begin, and their end
};

TEST_F(DamagedFile, LosesARecordAndWhatHangsOnItWhateverIsDamaged) {
  uint64_t most = 0;
  using Places = std::vector<size_t>;
  for (const size_t record : Places{0, 1, 12, kFirstStored - 1, kFirstStored, kLastStored,
                                    kLastStored + 1, kRecords - 1}) {
    const size_t size = m_at[record + 1] - m_at[record];
    const bool isStored = record >= kFirstStored && record <= kLastStored;
    for (const size_t at : Places{0, 1, 2, 3, 4, 6, 7, 8, 20, size / 2, size - 1}) {
      for (const int change : {0x01, 0x20, 0x80, 0xFF}) {
        const std::string what = "record " + std::to_string(record) + ", byte " +
                                 std::to_string(at) + " ^ " + std::to_string(change);
        const Outcome outcome = Break({{record, at}}, change);
        ExpectHonest(outcome, what);
        // A header alone can be made again from what is around it; any byte may be stored.
        EXPECT_LE(outcome.lostBytes, isStored || at < kMiniHeaderSize ? 0 : kMaxLoss) << what;
        EXPECT_EQ(outcome.unplaced, "") << what;
        most = std::max(most, outcome.lostBytes);
        // What lies before the damage is all there.
        EXPECT_TRUE(outcome.lost.empty() || outcome.lost[0].offset >= record * kChunk) << what;
      }
    }
  }
  EXPECT_GT(most, kChunk);  // else nothing hung on anything
}

TEST_F(DamagedFile, SeveralDamagesAreToldApart) {
  // Two lengths and a type; a payload, with this one or without.
  Outcome outcome = Break({{3, 6}, {10, 0}, {30, 7}, {35, 40}});
  ExpectHonest(outcome, "four damages");
  EXPECT_LE(outcome.lostBytes, 4 * kMaxLoss);
  EXPECT_EQ(outcome.unplaced, "");

  // Two records in each of two places: what lies between may be anywhere.
  outcome = Break({{5, 6}, {6, 6}, {20, 6}, {21, 6}});
  ExpectHonest(outcome, "unknown place");
  ASSERT_GE(outcome.lost.size(), 1U);
  EXPECT_EQ(outcome.lost[0].offset, 5 * kChunk);
  EXPECT_GE(outcome.lost[0].length, (22 - 5) * kChunk);
  EXPECT_LE(outcome.lostBytes, (22 - 5) * kChunk + kChunk / 2);
  // It is handed out for those who want it at any place.
  ASSERT_GT(outcome.unplaced.size(), 12 * kChunk);
  EXPECT_TRUE(outcome.unplaced.ends_with(m_story.substr(18 * kChunk, 2 * kChunk)));

  // A range over the loss, cut to what was asked for.
  outcome = ReadRange(m_path, 4 * kChunk + 100, 2 * kChunk);
  ASSERT_EQ(outcome.lost.size(), 1U);
  EXPECT_EQ(outcome.lost[0].offset, 5 * kChunk);
  EXPECT_EQ(outcome.lost[0].length, kChunk + 100);
  EXPECT_EQ(outcome.bytes.size(), 2 * kChunk);
  EXPECT_EQ(outcome.bytes.substr(0, kChunk - 100), m_story.substr(4 * kChunk + 100, kChunk - 100));
}

TEST_F(DamagedFile, RandomDamageNeverMakesAWrongByteGood) {
  std::mt19937 random(3);
  uint64_t lost = 0;
  for (int run = 0; run < 400; ++run) {
    std::string bytes = m_whole;
    const size_t at = m_at[0] + random() % (m_at[kRecords] - m_at[0]);
    // A byte, or in compressed records a torn stretch that breaks every unit it meets.
    const bool isTorn =
        run % 2 != 0 && (at + 600 < m_at[kFirstStored] || at > m_at[kLastStored + 1]);
    for (size_t i = at; i < std::min(at + (isTorn ? 600 : 1), m_at[kRecords]); ++i) {
      bytes[i] = static_cast<char>(bytes[i] ^ static_cast<char>(1 + random() % 255));
    }
    const Outcome outcome = Read(bytes);
    ExpectHonest(outcome, "run " + std::to_string(run) + " at " + std::to_string(at));
    EXPECT_LE(outcome.lostBytes, 2 * kMaxLoss) << "run " << run;
    lost += outcome.lostBytes;
  }
  EXPECT_GT(lost, 0U);
}

// A volume's files: a resident one has no data records to lose, others lose what is damaged.
TEST(DamagedNtfsFile, LosesRecordsOfAnNtfsPartition) {
  const test::TempDir folder;
  const std::string path = folder / "n.img";
  const std::string whole = test::ReadFile(CAPSULE_TEST_DATA "/images/n_flat_old.img");
  test::WriteFile(path, whole);
  std::vector<MapItem> records;
  MapImage(path, [&](const MapItem& item) {
    if (item.kind == MapItem::Kind::NtfsRecord && IsNtfsData(item.type)) records.push_back(item);
  });
  std::map<std::string, std::string> files;
  const Image image(path);
  for (const Entry& entry : image.Root(0).Children()) {
    if (entry.IsDirectory() || entry.Name().starts_with('$')) continue;
    const Outcome read = ReadRange(path, 0, kToTheEnd, entry.Path());
    EXPECT_EQ(read.bytes.size(), entry.Size());
    EXPECT_TRUE(read.lost.empty() && !read.isUncertain);
    files[entry.Path()] = read.bytes;
  }

  std::mt19937 random(23);
  uint64_t hits = 0;
  for (const MapItem& record : records) {
    const std::string file = "0:/" + record.path.substr(record.path.rfind('/') + 1);
    if (!files.contains(file)) continue;
    std::string bytes = whole;
    const size_t at = record.offset + (hits % 2 == 0 ? 2 : kNtfsHeaderSize + 10);  // type, payload
    const size_t end = std::min<size_t>(at + 40, record.offset + record.length);
    for (size_t i = at; i < end; ++i) bytes[i] = static_cast<char>(random());
    test::WriteFile(path, bytes);
    const Outcome found = ReadRange(path, 0, kToTheEnd, file);
    ASSERT_EQ(found.bytes.size(), files[file].size()) << file;
    if (hits % 2 == 0 || record.text.find("stored") == std::string::npos) {
      const std::string what = file + " at " + std::to_string(record.offset);
      EXPECT_TRUE(!found.lost.empty() || found.isUncertain) << what;
      ExpectOnlyLosses(found, files[file], what);
    }
    ++hits;
  }
  EXPECT_GT(hits, 4U);
}

}  // namespace
}  // namespace capsule::host
