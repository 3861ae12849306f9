#include "capsule/partition/ntfs_file.h"

#include <gtest/gtest.h>

#include "tests/support/ntfs_record.h"

namespace capsule {
namespace {

using test::Bytes;
using test::NtfsRecord;

struct Facts {
  std::u16string name;
  bool hasShortName = false;
  bool hasList = false;
  size_t parents = 0;
  size_t children = 0;
  uint32_t size = 0;

  bool operator==(const Facts&) const = default;
};

Facts FactsOf(Bytes records) {
  NtfsFile file;
  _ShortDirEntry entry{};
  file.TakeRecords(records, true, &entry);
  return {file.Name(),           file.HasShortName(), file.HasAttributeList(),
          file.Parents().size(), file.ChildCount(),   entry.FileSize};
}

Bytes Joined(const std::vector<Bytes>& parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

TEST(NtfsFile, TakesTheFactsOfAllRecordsTogether) {
  const Bytes list(32);
  const std::vector<std::pair<Bytes, Facts>> cases = {
      {Bytes(1023, 0xFF), {}},
      {NtfsRecord().Name(2, u"LONG~1").Name(1, u"a long one").Finish(),
       {.name = u"a long one", .hasShortName = true, .parents = 2}},
      {NtfsRecord().Name(1, u"first").Name(1, u"second").Name(0, u"third").Finish(),
       {.name = u"first", .parents = 3}},
      {NtfsRecord().Name(0, u"posix").Name(3, u"both").Finish(),
       {.name = u"both", .hasShortName = true, .parents = 2}},
      {NtfsRecord().NonResident(0x80, 0x112345678).Finish(), {.name = {}, .size = 0x12345678}},
      {NtfsRecord().Resident(0x80, Bytes(100)).Resident(0x80, Bytes(7), u"stream").Finish(),
       {.name = {}, .size = 100}},
      {NtfsRecord().Name(9, u"odd").Finish(), {.name = u"odd", .parents = 1}},
      {NtfsRecord().IndexRoot({{40, 5}, {5, 5}, {41, 5}, {40, 5}}).Finish(),
       {.name = {}, .children = 2}},
      {Joined({NtfsRecord().Resident(kAttributeListType, list).NonResident(0x80, 70000).Finish(),
               NtfsRecord().NonResident(0x80, 9, 9).Name(3, u"late").Finish(), Bytes(1000, 0x30)}),
       {.name = u"late", .hasShortName = true, .hasList = true, .parents = 1, .size = 70000}}};
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_TRUE(FactsOf(cases[i].first) == cases[i].second) << i;
  }
}

TEST(NtfsFile, DataLiesInTheRecordOrElsewhere) {
  const auto dataOf = [](const NtfsRecord& made) {
    Bytes record = made.Finish();
    const auto data = ResidentData(std::span<unsigned char, kFileRecordSize>(record));
    return data ? std::string(data->begin(), data->end()) : "elsewhere";
  };
  EXPECT_EQ(dataOf(NtfsRecord()), "elsewhere");
  EXPECT_EQ(dataOf(NtfsRecord().NonResident(0x80, 5)), "elsewhere");
  EXPECT_EQ(dataOf(NtfsRecord().Resident(0x80, {'x'}, u"named").Resident(0x80, {'a', 'b'})), "ab");
  EXPECT_EQ(dataOf(NtfsRecord().NonResident(0x80, 5).Resident(0x80, {'a'})), "elsewhere");
}

}  // namespace
}  // namespace capsule
