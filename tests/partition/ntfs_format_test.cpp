#include "capsule/partition/ntfs_format.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>

#include "capsule/platform/little_endian.h"
#include "tests/support/ntfs_record.h"
#include "tests/support/ntfs_volume.h"

namespace capsule {
namespace {

using platform::StoreLe16;
using platform::StoreLe32;
using test::Bytes;
using test::NtfsVolume;

auto Window(Bytes& record) { return std::span<unsigned char, kFileRecordSize>(record); }

std::vector<Bytes> Attributes(Bytes record) {
  UndoFileRecordFixups(Window(record));
  std::vector<Bytes> attributes;
  VisitAttributes(Window(record), [&](const NtfsAttribute& attribute) {
    attributes.emplace_back(attribute.bytes.begin(), attribute.bytes.end());
    return true;
  });
  return attributes;
}

const NtfsVolume& Tree() {
  static const NtfsVolume volume(test::UnpackVolume("vol_tree.ntfs"));
  return volume;
}

// Numbers of everything in the volume, folders before what is in them.
const std::vector<uint32_t>& AllFiles() {
  static const std::vector<uint32_t> numbers = [] {
    std::vector<uint32_t> found = {NtfsVolume::kRoot};
    for (size_t i = 0; i < found.size(); ++i) {
      for (const uint32_t child : Tree().Children(found[i])) found.push_back(child);
    }
    return found;
  }();
  return numbers;
}

// One folder of the volume is empty and has an index block full of names that it once held.
TEST(NtfsFormat, FindsTheChildrenOfEveryFolder) {
  ASSERT_GT(AllFiles().size(), 140U);
  for (const uint32_t number : AllFiles()) {
    if (!Tree().IsDirectory(number)) continue;
    std::set<uint32_t> found;
    const auto note = [&](uint32_t child) { found.insert(child); };
    NtfsIndexUse use;
    for (Bytes record : Tree().FileRecords(number)) {
      UndoFileRecordFixups(Window(record));
      VisitAttributes(Window(record), [&](const NtfsAttribute& attribute) {
        use.Take(attribute);
        if (attribute.type == kIndexRootType) VisitIndexRoot(attribute, note);
        return true;
      });
    }
    Bytes blocks = Tree().IndexBlocks(number);
    VisitIndexBlocks(blocks, use, note);
    const std::vector<uint32_t> expected = Tree().Children(number);
    EXPECT_EQ(found, std::set<uint32_t>(expected.begin(), expected.end())) << number;
  }
}

TEST(NtfsFormat, RestoresBothSectorsOnce) {
  Bytes record = test::NtfsRecord().Resident(0x80, Bytes(940, 0x5A)).Finish();
  const auto word = [&](size_t at) { return platform::LoadLe16(&record[at]); };
  ASSERT_EQ(word(510), 0x0777);
  ASSERT_EQ(word(1022), 0x0777);
  for (int times = 0; times < 2; ++times) {
    UndoFileRecordFixups(Window(record));
    EXPECT_EQ(word(510), 0x5A5A);
    EXPECT_EQ(word(1022), 0);
  }
}

TEST(NtfsFormat, RecordsThatStateNoLayoutHaveTheEarlierOne) {
  Bytes record = test::NtfsRecord().Resident(0x10, Bytes(48, 7)).Finish();
  const std::vector<Bytes> attributes = Attributes(record);
  ASSERT_EQ(attributes.size(), 1U);
  for (const auto& [sequence, words, first] :
       std::vector<std::array<uint16_t, 3>>{{0, 0, 0}, {42, 3, 2000}, {1022, 3, 48}, {48, 3, 48}}) {
    StoreLe16(&record[4], sequence);
    StoreLe16(&record[6], words);
    StoreLe16(&record[20], first);
    EXPECT_EQ(Attributes(record), attributes) << sequence;
  }
}

TEST(NtfsFormat, TwoSizesOfIndexBlocks) {
  const auto block = [](size_t size, const std::vector<std::pair<uint32_t, uint32_t>>& entries) {
    Bytes bytes(size);
    std::ranges::copy(std::string("INDX"), bytes.begin());
    StoreLe16(&bytes[24], 40);
    std::ranges::copy(test::NtfsIndexEntries(entries), bytes.begin() + 64);
    return bytes;
  };
  const auto children = [](Bytes blocks) {
    std::vector<uint32_t> found;
    VisitIndexBlocks(blocks, NtfsIndexUse(), [&](uint32_t child) { found.push_back(child); });
    return found;
  };
  Bytes two = block(2048, {{1, 5}, {2, 5}});
  EXPECT_EQ(children(two), (std::vector<uint32_t>{1, 2}));
  const Bytes second = block(2048, {{3, 5}, {5, 5}});
  two.insert(two.end(), second.begin(), second.end());
  EXPECT_EQ(children(two), (std::vector<uint32_t>{1, 2, 3}));
  EXPECT_EQ(children(block(4096, {{4, 5}})), (std::vector<uint32_t>{4}));
  EXPECT_EQ(children(block(4095, {{4, 5}})), std::vector<uint32_t>{});
  Bytes other = block(4096, {{4, 5}});
  other[0] = 'B';
  EXPECT_EQ(children(other), std::vector<uint32_t>{});
}

TEST(NtfsFormat, WalksEndAtLengthsThatLie) {
  const Bytes good = test::NtfsRecord().Resident(0x10, Bytes(48)).Name(3, u"name").Finish();
  ASSERT_EQ(Attributes(good).size(), 2U);
  for (const uint32_t length : {0U, 8U, 23U, 977U, 0xFFFFFFF8U}) {
    Bytes record = good;
    StoreLe32(&record[48 + 4], length);
    EXPECT_TRUE(Attributes(record).empty()) << length;
  }
  NtfsFileName name;
  EXPECT_FALSE(DecodeFileName(Bytes(65), &name));
  Bytes value(68);
  value[64] = 2;
  EXPECT_FALSE(DecodeFileName(value, &name));
  value[64] = 1;
  EXPECT_TRUE(DecodeFileName(value, &name));
}

// Every byte that a walk touches lies in a block of exactly the payload's size, so that a sanitizer
// sees one step beside it.
TEST(NtfsFormat, DamageStaysInsideThePayload) {
  std::mt19937 random(20012);
  std::vector<Bytes> sources;
  for (const uint32_t number : AllFiles()) {
    for (const Bytes& record : Tree().FileRecords(number)) sources.push_back(record);
    if (Tree().IsDirectory(number)) sources.push_back(Tree().IndexBlocks(number));
  }
  size_t visits = 0;
  for (int round = 0; round < 20000; ++round) {
    const Bytes& source = sources[random() % sources.size()];
    if (source.empty()) continue;
    const std::unique_ptr<unsigned char[]> copy(new unsigned char[source.size()]);
    const std::span<unsigned char> bytes(copy.get(), source.size());
    std::ranges::copy(source, bytes.begin());
    for (unsigned i = 0; i <= random() % 8; ++i) {
      const size_t limit = random() % 2 == 0 ? 200 : bytes.size();
      bytes[random() % std::min(limit, bytes.size())] = static_cast<unsigned char>(random());
    }
    size_t seen = 0;
    const auto count = [&](uint32_t) { ++seen; };
    VisitIndexBlocks(bytes, NtfsIndexUse(), count);
    if (bytes.size() == kFileRecordSize) {
      const auto record = bytes.first<kFileRecordSize>();
      UndoFileRecordFixups(record);
      VisitAttributes(record, [&](const NtfsAttribute& attribute) {
        ++seen;
        NtfsFileName name;
        if (DecodeFileName(attribute.NamedOffsetValue(), &name)) {
          EXPECT_LE(name.units.size(), 255U);
        }
        EXPECT_LE(attribute.ResidentValue().size(), attribute.bytes.size());
        VisitIndexRoot(attribute, count);
        return true;
      });
    }
    EXPECT_LE(seen, bytes.size());
    visits += seen;
  }
  EXPECT_GT(visits, 20000U);
}

}  // namespace
}  // namespace capsule
