#include "capsule/blocks/data_record.h"

#include <gtest/gtest.h>

#include "capsule/partition/ntfs_format.h"
#include "capsule/partition/record_format.h"
#include "capsule/platform/little_endian.h"

namespace capsule {
namespace {

// The same record with the header of either kind.
std::vector<unsigned char> HeaderBytes(RecordKind kind, unsigned char flag, uint16_t param,
                                       uint16_t length) {
  if (kind == RecordKind::Fat) {
    const auto bytes = EncodeMiniHeader({kRecordDataBlock, flag, param, length});
    return {bytes.begin(), bytes.end()};
  }
  std::vector<unsigned char> bytes(kNtfsHeaderSize);
  bytes[1] = flag;
  platform::StoreLe32(&bytes[2], kNtfsMoreData);
  platform::StoreLe16(&bytes[8], param);
  platform::StoreLe16(&bytes[10], length);
  return bytes;
}

TEST(DataRecord, IsWhatItsHeaderSaysInBothKindsOfSections) {
  struct Case {
    unsigned char flag;
    uint16_t param, length;
    bool inCompressed;  // the image
    uint32_t chunk;
    bool isCompressed;
    bool mayGoOn;
    const char* wrong;  // nothing: it is sound
  };
  const char* const kChunk = "multiples of 512 up to 65536 are possible";
  const std::vector<Case> cases = {{0, 8192, 700, true, 8192, true, true, ""},
                                   {1, 512, 700, true, 512, true, false, ""},
                                   {0, 8192, 512, false, 512, false, true, ""},
                                   {0, 0, 8192, true, 8192, false, true, ""},
                                   {0, 8192, 8192, true, 8192, false, true, ""},
                                   {2, 8192, 700, true, 8192, true, true, "flag is 2, not 0 or 1"},
                                   {0, 511, 700, true, 511, true, true, kChunk},
                                   {0, 8192, 700, false, 700, false, true, kChunk},
                                   {0, 0, 0, true, 0, false, false, kChunk}};
  for (const Case& c : cases) {
    for (const RecordKind kind : {RecordKind::Fat, RecordKind::Ntfs}) {
      SCOPED_TRACE(testing::Message() << (&c - cases.data()) << (kind == RecordKind::Ntfs));
      const RecordRules rules{kind, c.inCompressed};
      const DataRecord record = DataRecordOf({kRecordDataBlock, c.flag, c.param, c.length}, rules);
      EXPECT_EQ(record.chunk, c.chunk);
      EXPECT_EQ(record.isCompressed, c.isCompressed);
      EXPECT_EQ(record.IsLast(), c.flag == 1);
      EXPECT_EQ(record.MayGoOn(), c.mayGoOn);
      EXPECT_EQ(record.Size(), (kind == RecordKind::Fat ? 8U : 46U) + c.length);
      const std::string problem = JudgeDataRecord(record);
      EXPECT_TRUE(problem.ends_with(c.wrong)) << problem;
      EXPECT_EQ(problem.empty(), *c.wrong == 0);

      auto bytes = HeaderBytes(kind, c.flag, c.param, c.length);
      const auto decoded = DecodeDataRecord(bytes, rules);
      ASSERT_EQ(decoded.has_value(), problem.empty());
      if (decoded) {
        EXPECT_EQ(decoded->Size(), record.Size());
        EXPECT_EQ(decoded->chunk, record.chunk);
      }
      EXPECT_FALSE(DecodeDataRecord(std::span(bytes).first(bytes.size() - 1), rules));
      bytes[kind == RecordKind::Fat ? 0 : 2] = 1;  // the type
      EXPECT_FALSE(DecodeDataRecord(bytes, rules));
    }
  }
}

TEST(DataRecord, CoversItsFileExactly) {
  struct Case {
    uint32_t chunk;
    unsigned char flag;
    uint64_t begin, size;
    std::string wrong;
    bool inNtfsToo = false;
  };
  const std::vector<Case> cases = {
      {8192, 0, 0, 8193, ""},
      {8192, 1, 0, 8192, ""},
      {8192, 1, 8192, 15873, ""},
      {8192, 1, 8192, 15872, "last record ends at 16384, the file at 15872"},
      {8192, 0, 0, 8192, "not marked as the last record, but ends at 8192 of 8192 bytes"},
      {8192, 1, 0, 8193, "marked as the last record, but ends at 8192 of 8193 bytes"},
      {65536, 0, 0, 65537, ""},
      {65537, 0, 0, 65538, "chunk is 65537 bytes, 1 to 65536 are possible", true},
      {0, 0, 0, 1, "chunk is 0 bytes, 1 to 65536 are possible", true}};
  for (const Case& c : cases) {
    const DataRecord record{.chunk = c.chunk, .flag = c.flag};
    EXPECT_EQ(JudgeCoverage(record, c.begin, c.size, {}), c.wrong);
    EXPECT_EQ(JudgeCoverage(record, c.begin, c.size, {RecordKind::Ntfs, true}),
              c.inNtfsToo ? c.wrong : "");
  }
}

}  // namespace
}  // namespace capsule
