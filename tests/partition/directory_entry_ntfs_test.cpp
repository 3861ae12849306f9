#include <gtest/gtest.h>

#include "capsule/partition/directory_entry.h"
#include "capsule/platform/little_endian.h"
#include "tests/support/ntfs_record.h"

namespace capsule {
namespace {

using test::Bytes;
using test::NtfsRecord;

void Fill(CapsuleDirectoryEntry& entry, Bytes records) {
  entry.FileRecordtoDirectoryEntry(records.data(), static_cast<long>(records.size()));
}

std::string ShortText(const _ShortDirEntry& entry) {
  return std::string(std::begin(entry.Name), std::end(entry.Name)) + "|" +
         std::string(std::begin(entry.Extension), std::end(entry.Extension));
}

TEST(NtfsEntry, ShortAndLongNameInEitherOrder) {
  for (const bool dosFirst : {true, false}) {
    NtfsRecord record;
    if (dosFirst) record.Name(2, u"LONGNA~1");
    record.Name(1, u"thirteen.char");
    if (!dosFirst) record.Name(2, u"LONGNA~1");
    CapsuleDirectoryEntry entry;
    Fill(entry, record.Finish());
    EXPECT_EQ(ShortText(entry.GetRecord()->OtherEntry), "LONGNA~1|   ");
    EXPECT_EQ(ShortText(entry.GetRecord()->FirstEntry), "LONGNA~1|   ");
    EXPECT_EQ(entry.ShortName(), "LONGNA~1.   ");
    EXPECT_EQ(entry.GetRecord()->LongNameLength, 13);
    EXPECT_EQ(entry.LongFileName().Size(), 52);
    EXPECT_EQ(entry.LongFileName()[25], 0xFF);
    EXPECT_EQ(entry.LongFileName()[26], 't');
    EXPECT_EQ(entry.NtfsFullName(), u"thirteen.char");
  }
}

TEST(NtfsEntry, ShortNamesFromNamesOfAnyShape) {
  const std::vector<std::pair<std::u16string, std::string>> cases = {
      {u"resident.bin", "resident|bin"},
      {u"resident2.bin", "resident|bi "},  // 12 characters are looked at
      {u".hidden", "        |hid"},
      {u"a.b.c", "a       |b.c"},
      {u"a long name", "a long n|   "},
      {u"\u0416\u4E2D.x", "\x16-      |x  "}};
  for (const auto& [name, expected] : cases) {
    CapsuleDirectoryEntry entry;
    Fill(entry, NtfsRecord().Name(0, name).Finish());
    EXPECT_EQ(ShortText(entry.GetRecord()->OtherEntry), expected);
    EXPECT_EQ(entry.GetRecord()->LongNameLength, 0);
    EXPECT_EQ(entry.NtfsFullName(), name);
  }
}

TEST(NtfsEntry, ChildrenAreCountedOnce) {
  CapsuleDirectoryEntry entry;
  Fill(entry, NtfsRecord().IndexRoot({{40, 5}, {5, 5}, {41, 5}}).Finish());
  for (const auto& [child, count] : {std::pair(41, 2), {42, 3}}) {
    entry.NTFSAddEntry(child);
    EXPECT_EQ(entry.GetNumEntries(), count);
  }
}

TEST(NtfsEntry, TimesAndAttributes) {
  constexpr uint64_t kDay = 864000000000;
  constexpr uint64_t kStart = 148731 * kDay;  // 2008-03-19
  Bytes value(48);
  for (const size_t i : {0U, 1U, 2U}) {
    const uint64_t time = kStart + i * kDay;
    platform::StoreLe32(&value[8 * i], static_cast<uint32_t>(time));
    platform::StoreLe32(&value[8 * i + 4], static_cast<uint32_t>(time >> 32));
  }
  platform::StoreLe32(&value[32], 0x0820);
  CapsuleDirectoryEntry entry;
  Fill(entry, NtfsRecord().Resident(0x10, value).Finish());
  const _ShortDirEntry& got = entry.GetRecord()->OtherEntry;
  EXPECT_EQ(got.CreationDate, got.WriteDate + 1);
  EXPECT_EQ(got.LastAccessDate, got.WriteDate + 2);
  EXPECT_EQ(got.WriteDate >> 9, 2008 - 1980);
  EXPECT_EQ(got.WriteTime, 0);
  EXPECT_EQ(got.Attribute, 0xA0);
}

}  // namespace
}  // namespace capsule
