#include "capsule/container/header_format.h"

#include <gtest/gtest.h>

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
int Sections(Bytes header) {
  const HeaderWindow window(header.data(), kHeaderSize);
  std::string problem;
  if (!RestoreScrambledRegion(window, &problem)) return -1;
  const auto decoded = DecodeHeader(window, &problem);
  EXPECT_EQ(decoded.has_value(), problem.empty()) << problem;
  return decoded ? static_cast<int>(decoded->partitions.size()) : -1;
}

TEST(HeaderFormat, CompactHeadersReachToTheLastByte) {
  for (const bool scrambled : {false, true}) {
    EXPECT_EQ(Sections(CompactHeader(656, 121, scrambled)), 121);
    EXPECT_EQ(Sections(CompactHeader(659, 121, scrambled)), 121);
    EXPECT_EQ(Sections(CompactHeader(5459, 1, scrambled)), 1);
    EXPECT_EQ(Sections(CompactHeader(5499, 0, scrambled)), 0);
  }
}

TEST(HeaderFormat, CompactHeadersThatLeaveTheHeaderAreRefused) {
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

TEST(HeaderFormat, OnlyFlagOneMeansScrambled) {
  Bytes header = CompactHeader(800, 2);
  for (const int flag : {0, 2, 255}) {
    header[kScrambleFlagOffset] = static_cast<unsigned char>(flag);
    EXPECT_EQ(Sections(header), 2);
  }
}

TEST(HeaderFormat, TheSignatureMeansTheFixedLayout) {
  Bytes header(kHeaderSize);
  platform::StoreLe16(&header[kTailOffsetOffset], 800);
  EXPECT_EQ(SelectLayout(HeaderWindow(header.data(), kHeaderSize)), HeaderLayout::Compact);
  const std::string version = "CAPSULATE 2";
  std::copy(version.begin(), version.end(), header.begin());
  EXPECT_EQ(SelectLayout(HeaderWindow(header.data(), kHeaderSize)), HeaderLayout::Fixed);
  header[kPartitionCountOffset] = 1;
  EXPECT_EQ(Sections(header), 1);
}

}  // namespace
}  // namespace capsule
