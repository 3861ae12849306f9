// Real damage over real images: what is untouched comes out equal, what is not is never wrong.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <map>
#include <set>
#include <utility>

#include "capsule/container/index_format.h"
#include "capsule/host/checksum.h"
#include "capsule/host/image.h"
#include "capsule/host/index_writer.h"
#include "capsule/platform/little_endian.h"
#include "tests/host/small_image.h"
#include "tests/support/damage_seed.h"
#include "tests/support/temp_dir.h"

namespace capsule::host {
namespace {

using Kind = SectionItem::Kind;
using test::Contents;

// A sample with an index of this system, or with its own, which has no check value.
class Seed {
 public:
  explicit Seed(const std::string& name, bool isChecked = true) : m_Seed(Put(name, isChecked)) {}

  const test::DamageSeed& operator*() const { return m_Seed; }

  // Reads `bytes`: untouched files are there and equal.
  void Check(const std::string& bytes, const std::set<std::string>& untouched,
             const std::string& what) const {
    test::WriteFile(m_Folder / "damaged.cap", bytes);
    const Contents found = test::ReadContents(Image(m_Folder / "damaged.cap", Opening::Salvage));
    for (const std::string& path : untouched) {
      const auto at = found.find(path);
      ASSERT_NE(at, found.end()) << what << ": " << path;
      ASSERT_EQ(at->second == m_Seed.Whole().at(path), true) << what << ": " << path;
    }
    std::filesystem::remove(m_Folder / "damaged.cap");
  }

 private:
  std::string Put(const std::string& name, bool isChecked) const {
    const std::string path = m_Folder / "x.cap";
    test::WriteFile(path, test::ReadFile(CAPSULE_TEST_DATA "/images/" + name));
    if (isChecked) IndexWriter(path).Write();
    return path;
  }

  test::TempDir m_Folder;
  test::DamageSeed m_Seed;
};

class Salvage : public testing::TestWithParam<const char*> {};

TEST_P(Salvage, BrokenIndexLosesNothing) {
  const Seed seed(GetParam());
  const std::set<std::string> all = (*seed).Untouched(0, 0);
  ASSERT_EQ(all.size(), (*seed).Whole().size());
  std::string bytes = (*seed).Bytes();
  seed.Check(bytes.substr(0, (*seed).IndexOffset()), all, "cut off");
  for (size_t at = (*seed).IndexOffset(); at < bytes.size(); at += bytes.size() / 97 + 1) {
    bytes[at] = static_cast<char>(bytes[at] ^ 0x55);
    seed.Check(bytes, all, "index byte " + std::to_string(at));
  }
  for (const char* offset : {"\0\0\0\0", "\xff\xff\xff\xff", "\1\0\0\0"}) {
    std::string patched = (*seed).Bytes();
    patched.replace(kIndexOffsetOffset, 4, std::string(offset, 4));
    seed.Check(patched, all, "index offset");
  }
}

TEST_P(Salvage, TruncationKeepsWhatLiesBefore) {
  const Seed seed(GetParam());
  const SectionItem& first = (*seed).Items().at(1);
  for (size_t length = first.offset + 40; length < (*seed).Bytes().size();
       length += (*seed).Bytes().size() / 61) {
    seed.Check((*seed).Bytes().substr(0, length), (*seed).Untouched(length, (*seed).Bytes().size()),
               "length " + std::to_string(length));
  }
}

TEST_P(Salvage, DamagedDataRecordsLoseOnlyTheirFile) {
  const Seed seed(GetParam());
  for (const SectionItem& item : (*seed).Items()) {
    if (item.kind != Kind::File || item.dataOffset == item.offset + item.length) continue;
    for (size_t at = item.dataOffset; at < item.dataOffset + 12; at += 2) {
      std::string bytes = (*seed).Bytes();
      bytes[at] = static_cast<char>(bytes[at] ^ 0x7F);
      const auto untouched = (*seed).Untouched(at, at + 1);
      seed.Check(bytes, untouched, std::to_string(at));
      seed.Check(bytes.substr(0, (*seed).IndexOffset()), untouched,
                 std::to_string(at) + ", no index");
      if (HasFatalFailure()) return;
    }
  }
}

// One byte of every record that is not data.
TEST_P(Salvage, DamagedEntriesLoseOnlyWhatIsTheirs) {
  const Seed seed(GetParam());
  size_t turn = 0;
  for (const SectionItem& item : (*seed).Items()) {
    const bool hasData = item.kind == Kind::File;
    const uint64_t end = hasData ? item.dataOffset : item.offset + item.length;
    const size_t step = std::max<size_t>(9, (end - item.offset) / 3);
    for (size_t at = item.offset + turn % 9; at < end; at += step) {
      std::string bytes = (*seed).Bytes();
      const char* values[] = {"\x00", "\x01", "\x7F", "\x80", "\xFF"};
      bytes[at] = *values[turn++ % 5];
      if (bytes[at] == (*seed).Bytes()[at]) continue;
      const auto untouched = (*seed).Untouched(at, at + 1);
      seed.Check(bytes, untouched, std::to_string(at));
      seed.Check(bytes.substr(0, (*seed).IndexOffset()), untouched,
                 std::to_string(at) + ", no index");
      if (HasFatalFailure()) return;
    }
  }
}

// Two records one behind the other lose most of their bytes. An index without a check value still
// tells what stood there.
TEST_P(Salvage, AnyIndexTellsWhatIsLost) {
  const Seed seed(GetParam(), false);
  const auto& items = (*seed).Items();
  for (size_t i = 1; i + 1 < items.size(); ++i) {
    const SectionItem& item = items[i];
    if (item.kind == Kind::Section || item.kind == Kind::Trailer || item.isNtfs) continue;
    const bool isAlone = items[i + 1].kind == Kind::Trailer;
    const uint64_t end = isAlone ? item.offset + item.length : items[i + 1].offset + 20;
    std::string bytes = (*seed).Bytes();
    for (uint64_t at = item.offset + 3; at < end; at += 1 + at % 3) bytes[at] = '\x47';
    seed.Check(bytes, (*seed).Untouched(item.offset, end), std::to_string(item.offset));
    if (HasFatalFailure()) return;
  }
}

// The same of an index without a check value, byte by byte at its end, where sections end as well.
TEST_P(Salvage, DamageToItsOwnIndexLosesNothing) {
  const Seed seed(GetParam(), false);
  std::string bytes = (*seed).Bytes();
  for (size_t at = bytes.size() - 60; at < bytes.size(); ++at) {
    for (const char value : {'\x01', '\x7F'}) {
      const char before = std::exchange(bytes[at], value);
      seed.Check(bytes, (*seed).Untouched(0, 0), "index byte " + std::to_string(at));
      bytes[at] = before;
    }
  }
}

// A stored record that seems longer still is one, and may reach over the next file.
TEST(SalvagedNtfs, ALongerRecordHidesNoFile) {
  constexpr size_t kRecord = 46 + 16384;
  const Seed seed("n_flat_old.img", false);
  for (const SectionItem& item : (*seed).Items()) {
    if (item.kind != Kind::File) continue;
    for (size_t at = item.dataOffset; at + kRecord < item.offset + item.length; at += kRecord) {
      std::string bytes = (*seed).Bytes();
      bytes[at + 11] = 0x5A;
      seed.Check(bytes, (*seed).Untouched(at + 11, at + 12), std::to_string(at));
    }
  }
}

// An empty folder whose attribute is damaged looks like an empty file.
TEST(SalvagedKind, AFolderIsNoFile) {
  const Seed seed("w_names.img");
  std::string bytes = (*seed).Bytes();
  const size_t folder = bytes.find("D1         ");
  ASSERT_NE(folder, std::string::npos);
  bytes[folder + 11] = 0;
  const test::TempDir place;
  test::WriteFile(place / "x.cap", bytes);
  EXPECT_THROW(Image(place / "x.cap"), Error);
  EXPECT_TRUE(Image(place / "x.cap", Opening::Salvage).Find("D1")->IsDirectory());
}

// Files that lie one in the other, each with a chain of records that comes to nothing far behind:
// to follow every chain would take the square of the image's size.
TEST(HostileChains, AreNotFollowedTimeAndAgain) {
  constexpr uint16_t kReach = 4800 - kMiniHeaderSize;  // to another record of the same kind
  test::SmallImage image;
  image.BeginSection();
  std::vector<uint32_t> files;
  for (int i = 0; i < 10'000; ++i) {
    files.push_back(image.Size());
    image.Entry("A          ", 0x20, 512);
    image.Data(kReach, false);
    image.Bytes().resize(files.back() + kDirRecordSize + kMiniHeaderSize);
  }
  files.push_back(image.Size());  // where nothing can be read
  image.Bytes().append(kReach, '\0');
  image.EndSection();

  std::vector<unsigned char> records;
  AppendIndexRecord({kIndexSection, "", kHeaderSize, kPartitionHeaderSize}, &records);
  for (const uint32_t file : files) AppendIndexRecord({kIndexFile, "A", file, 48}, &records);
  AppendIndexRecord({kIndexZeroEntry, "", image.Size() - kDirRecordSize, kDirRecordSize}, &records);
  IndexChecksum checksum;
  checksum.Update(records);
  std::array<unsigned char, kIndexPreamble> start{'C', 'I', '1'};
  platform::StoreLe32(&start[3], checksum.Value());

  const test::TempDir folder;
  const auto problems = [&](std::string bytes) {
    test::WriteFile(folder / "x.cap", bytes);
    return Image(folder / "x.cap", Opening::Salvage).Problems();
  };
  const std::string kLeftOut = "what follows is left out";
  EXPECT_NE(problems(image.Bytes()).back().reason.find(kLeftOut), std::string::npos);

  std::array<unsigned char, sizeof(uint32_t)> offset;
  platform::StoreLe32(offset.data(), image.Size());
  image.Bytes().replace(kIndexOffsetOffset, 4, std::string(offset.begin(), offset.end()));
  const std::string list(records.begin(), records.end());
  const auto unchecked = problems(image.Bytes() + std::string(kIndexPreamble, '\0') + list);
  EXPECT_NE(unchecked.back().reason.find(kLeftOut), std::string::npos);
  const auto checked = problems(image.Bytes() + std::string(start.begin(), start.end()) + list);
  ASSERT_EQ(checked.size(), files.size());
  EXPECT_NE(checked.front().reason.find("no data block before"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(All, Salvage,
                         testing::Values("w_names.img", "w_files_only.img", "w_three_open.img",
                                         "f_16384_lzs.img", "h_compact_scrambled.img",
                                         "n_flat_old.img"));

}  // namespace
}  // namespace capsule::host
