#include "capsule/host/record_judge.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "capsule/partition/record_format.h"
#include "tests/support/lzs_writer.h"

namespace capsule::host {
namespace {

using test::Bytes;

Bytes Record(uint8_t flag, uint32_t param, const Bytes& payload) {
  const auto header =
      EncodeMiniHeader({kRecordDataBlock, flag, param, static_cast<uint16_t>(payload.size())});
  Bytes record(header.size() + payload.size());
  std::copy(payload.begin(), payload.end(),
            std::copy(header.begin(), header.end(), record.begin()));
  return record;
}

// Words out of a small set: compresses well, and the second chunk refers to the first.
Bytes Text(size_t size) {
  std::mt19937 random(7);
  Bytes text;
  while (text.size() < size) text.insert(text.end(), 3, static_cast<unsigned char>(random() % 40));
  text.resize(size);
  return text;
}

TEST(RecordJudge, TellsWholeRecordsFromOtherBytesWhateverTheirHistory) {
  test::LzsWriter writer;
  const Bytes text = Text(8192);
  writer.Unit(text);
  const Bytes second = Record(0, 8192, writer.Unit(text));  // refers back all over
  const Bytes stored = Record(1, 0, Bytes(512, 'x'));
  Bytes padded = second;
  padded.push_back(0);
  ++padded[6];

  EXPECT_TRUE(IsWholeDataRecord(second, true));
  EXPECT_TRUE(IsWholeDataRecord(padded, true));
  EXPECT_TRUE(IsWholeDataRecord(stored, true));
  EXPECT_TRUE(IsWholeDataRecord(stored, false));
  Bytes followed = second;
  followed.insert(followed.end(), 100, 'x');
  EXPECT_TRUE(IsWholeDataRecord(followed, true));

  EXPECT_FALSE(IsWholeDataRecord(std::span(second).first(second.size() - 1), true));
  EXPECT_FALSE(IsWholeDataRecord(std::span(stored).first(519), true));
  EXPECT_FALSE(IsWholeDataRecord(std::span(second).first(7), true));
  for (size_t at = 1; at < followed.size(); ++at) {
    EXPECT_FALSE(IsWholeDataRecord(std::span(followed).subspan(at), true)) << at;
  }
  ASSERT_NE((second.size() - kMiniHeaderSize) % 512, 0);  // else it could pass for a stored one
  // No byte of its header can be another: type, flag, param, length.
  for (size_t at = 0; at < kMiniHeaderSize; ++at) {
    for (unsigned change = 1; change < 256; ++change) {
      Bytes damaged = followed;
      damaged[at] ^= static_cast<unsigned char>(change);
      const bool isFlag = at == 1 && change == 1;
      EXPECT_EQ(IsWholeDataRecord(damaged, true), isFlag) << at << ' ' << change;
    }
  }
}

}  // namespace
}  // namespace capsule::host
