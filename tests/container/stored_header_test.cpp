#include "capsule/container/stored_header.h"

#include <gtest/gtest.h>

#include "capsule/container/header_scramble.h"
#include "capsule/platform/little_endian.h"
#include "tests/support/foreign_image.h"

namespace capsule {
namespace {

using test::Bytes;

using HeaderWindow = std::span<unsigned char, kHeaderSize>;

Bytes CompactHeader(uint16_t tail, int sections, bool scrambled = false) {
  test::ForeignImage image({.tailOffset = tail, .scrambled = scrambled, .key = "key"});
  for (int i = 0; i < sections; ++i) image.BeginSection(6, 2);
  Bytes bytes = image.Finish();
  bytes.resize(kHeaderSize);
  return bytes;
}

// How many sections a header has; -1 when it is refused.
int Sections(const Bytes& header) {
  const StoredHeader stored(header);
  EXPECT_EQ(stored.decoded.has_value(), stored.problem.empty()) << stored.problem;
  return stored.decoded ? static_cast<int>(stored.decoded->partitions.size()) : -1;
}

TEST(StoredHeader, CompactHeadersReachToTheLastByte) {
  for (const bool scrambled : {false, true}) {
    EXPECT_EQ(Sections(CompactHeader(656, 121, scrambled)), 121);
    EXPECT_EQ(Sections(CompactHeader(659, 121, scrambled)), 121);
    EXPECT_EQ(Sections(CompactHeader(5459, 1, scrambled)), 1);
    EXPECT_EQ(Sections(CompactHeader(5499, 0, scrambled)), 0);
  }
}

TEST(StoredHeader, CompactHeadersThatLeaveTheHeaderAreRefused) {
  for (const bool scrambled : {false, true}) {
    for (const int tail : {1, 655, 5500, 7048, 7559, 7560, 65535}) {
      Bytes header = CompactHeader(800, 1, scrambled);
      platform::StoreLe16(&header[kTailOffsetOffset], static_cast<uint16_t>(tail));
      EXPECT_EQ(Sections(header), -1) << tail;
    }
    // The number of sections lies before the scrambled part, that of the records within it.
    Bytes header = CompactHeader(800, 1, scrambled);
    header[806] = 118;
    EXPECT_EQ(Sections(header), -1);
  }
  Bytes header = CompactHeader(800, 1);
  header[800 + 513] = 118;
  EXPECT_EQ(Sections(header), -1);
  header[800 + 513] = 3;  // more records than sections
  EXPECT_EQ(Sections(header), 1);
}

TEST(StoredHeader, OnlyFlagOneMeansScrambled) {
  Bytes header = CompactHeader(800, 2);
  for (const int flag : {0, 2, 255}) {
    header[kScrambleFlagOffset] = static_cast<unsigned char>(flag);
    EXPECT_EQ(Sections(header), 2);
  }
}

TEST(StoredHeader, TheSignatureMeansTheFixedLayout) {
  Bytes header(kHeaderSize);
  platform::StoreLe16(&header[kTailOffsetOffset], 800);
  EXPECT_EQ(SelectLayout(HeaderWindow(header.data(), kHeaderSize)), HeaderLayout::Compact);
  const std::string version = "CAPSULATE 2";
  std::copy(version.begin(), version.end(), header.begin());
  EXPECT_EQ(SelectLayout(HeaderWindow(header.data(), kHeaderSize)), HeaderLayout::Fixed);
  header[kPartitionCountOffset] = 1;
  EXPECT_EQ(Sections(header), 1);
}

// What is wrong with a header of the fixed layout that counts one section and has its record.
TEST(StoredHeader, SaysWhatIsWrongAndWhatBecomesOfIt) {
  struct Case {
    const char* what;
    std::vector<std::pair<size_t, unsigned char>> changed;
    size_t length;
    std::string why;       // it is no image
    std::string spare;     // of records that are not counted
    std::string complete;  // it cannot be completed
    int count;             // of sections, completed
  };
  constexpr size_t kSecond = kPartitionRecordsOffset + kPartitionRecordSize;
  const std::string noChain =
      "partition count cannot be corrected: records do not follow each other";
  const std::string scrambled = "partition count cannot be corrected: header is scrambled";
  const std::string eleven = "header claims 11 partitions, room is for 10";
  const std::string cut = "not an image: 7559 bytes, a header alone has 7560";
  const std::string spare = "partition record 1 is not counted, but is not empty";
  const std::vector<Case> cases = {
      {"sound", {}, kHeaderSize, "", "", "", 1},
      {"cut short", {}, kHeaderSize - 1, cut, "", "", 1},
      {"no mark", {{5000, 0}}, kHeaderSize, kNoHeaderMark, "", "", 1},
      {"too many", {{kPartitionCountOffset, 11}}, kHeaderSize, eleven, "", eleven, -1},
      {"too many, no mark", {{5000, 0}, {5513, 11}}, kHeaderSize, eleven, "", eleven, -1},
      {"counts one more", {{kPartitionCountOffset, 2}}, kHeaderSize, "", "", "", 1},
      {"one not counted", {{kSecond + 2, 7}}, kHeaderSize, "", spare, "", 1},
      {"behind a gap", {{kSecond + 26, 7}, {5513, 3}}, kHeaderSize, "", "", noChain, -1},
      {"scrambled", {{kScrambleFlagOffset, 1}, {5513, 2}}, kHeaderSize, "", "", scrambled, -1}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Bytes header = EncodeHeader("Capsulate", true);
    header[kPartitionCountOffset] = 1;
    header[kPartitionRecordsOffset + 2] = 0x0B;
    for (const auto& [at, byte] : c.changed) header[at] = byte;
    if (header[kScrambleFlagOffset] == 1) {
      HeaderScramble(&header[kHeaderSectorAreaOffset + 512], "", 1800, 0);
    }
    const StoredHeader stored(std::span<const unsigned char>(header).first(c.length));
    EXPECT_EQ(stored.WhyNotAnImage(), c.why);
    const HeaderWindow window(header.data(), kHeaderSize);
    if (stored.decoded) {
      EXPECT_EQ(JudgeSpareRecords(window, *stored.decoded), c.spare);
    }
    EXPECT_EQ(CompleteHeader(4711, window), c.complete);
    if (c.count < 0) continue;
    const StoredHeader completed(header);
    ASSERT_TRUE(completed.decoded);
    EXPECT_EQ(completed.decoded->indexOffset, 4711U);
    EXPECT_EQ(completed.decoded->partitions.size(), static_cast<size_t>(c.count));
  }
}

TEST(StoredHeader, KnowsWhereTheIndexIsSaidToLie) {
  EXPECT_EQ(PlaceOfIndex(0, 10000), IndexPlace::None);
  EXPECT_EQ(PlaceOfIndex(7559, 10000), IndexPlace::InHeader);
  EXPECT_EQ(PlaceOfIndex(7560, 10000), IndexPlace::InFile);
  EXPECT_EQ(PlaceOfIndex(9999, 10000), IndexPlace::InFile);
  EXPECT_EQ(PlaceOfIndex(10000, 10000), IndexPlace::BehindFile);
}

}  // namespace
}  // namespace capsule
