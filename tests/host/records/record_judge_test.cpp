#include "capsule/host/records/record_judge.h"

#include <gtest/gtest.h>

#include <random>

#include "capsule/partition/record_format.h"
#include "tests/support/lzs_writer.h"

namespace capsule::host {
namespace {

using test::Bytes;

constexpr RecordRules kRules{RecordKind::Fat, true};

Bytes Record(uint8_t flag, uint32_t param, const Bytes& payload) {
  const auto header =
      EncodeMiniHeader({kRecordDataBlock, flag, param, static_cast<uint16_t>(payload.size())});
  Bytes record(header.begin(), header.end());
  record.insert(record.end(), payload.begin(), payload.end());
  return record;
}

TEST(RecordJudge, TellsWholeRecordsFromOtherBytesWhateverTheirHistory) {
  // Words out of a small set: compresses well, and the second chunk refers to the first.
  std::mt19937 random(7);
  Bytes text;
  while (text.size() < 8192) text.insert(text.end(), 3, static_cast<unsigned char>(random() % 40));
  text.resize(8192);
  test::LzsWriter writer;
  writer.Unit(text);
  const Bytes second = Record(0, 8192, writer.Unit(text));  // refers back all over
  const Bytes stored = Record(1, 0, Bytes(512, 'x'));
  Bytes padded = second;
  padded.push_back(0);
  ++padded[6];
  Bytes followed = second;
  followed.insert(followed.end(), 100, 'x');
  for (const Bytes& whole : {second, padded, stored, followed}) {
    EXPECT_TRUE(IsWholeDataRecord(whole, kRules)) << whole.size();
  }
  EXPECT_TRUE(IsWholeDataRecord(stored, {}));
  EXPECT_FALSE(IsWholeDataRecord(std::span(second).first(second.size() - 1), kRules));
  EXPECT_FALSE(IsWholeDataRecord(std::span(stored).first(519), kRules));
  EXPECT_FALSE(IsWholeDataRecord(std::span(second).first(7), kRules));
  for (size_t at = 1; at < followed.size(); ++at) {
    EXPECT_FALSE(IsWholeDataRecord(std::span(followed).subspan(at), kRules)) << at;
  }
  ASSERT_NE((second.size() - kMiniHeaderSize) % 512, 0);  // else it could pass for a stored one
  // No byte of its header can be another, but for the flag: type, flag, param, length.
  for (size_t at = 0; at < kMiniHeaderSize; ++at) {
    for (unsigned change = 1; change < 256; ++change) {
      Bytes damaged = followed;
      damaged[at] ^= static_cast<unsigned char>(change);
      EXPECT_EQ(IsWholeDataRecord(damaged, kRules), at == 1 && change == 1) << at << ' ' << change;
    }
  }
}

}  // namespace
}  // namespace capsule::host
