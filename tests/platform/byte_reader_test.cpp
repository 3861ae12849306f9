#include "capsule/platform/byte_reader.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace capsule::platform {
namespace {

TEST(ByteReaderTest, ReadsLittleEndianAndThenFailsForGood) {
  const std::vector<unsigned char> bytes = {1, 2,  3,  4,  5,  6,  7,  8,
                                            9, 10, 11, 12, 13, 14, 15, 0x80};
  ByteReader reader(bytes);
  EXPECT_EQ(reader.U8(), 1);
  EXPECT_EQ(reader.U16(), 0x0302);
  EXPECT_EQ(reader.U32(), 0x07060504U);
  EXPECT_EQ(reader.U64(), 0x0F0E0D0C0B0A0908U);
  ByteReader greedy = reader;
  EXPECT_TRUE(greedy.Take(std::numeric_limits<size_t>::max() - 2).empty());
  EXPECT_FALSE(greedy.Ok()) << "position and count must not wrap";
  EXPECT_EQ(reader.U16(), 0);  // one byte is left
  EXPECT_FALSE(reader.Ok());
  EXPECT_EQ(reader.U8(), 0) << "a failed reader must not go on with what is left";
  EXPECT_EQ(reader.Position(), 15U);
}

TEST(ByteReaderTest, ASubReaderSeesItsBytesAlone) {
  const std::vector<unsigned char> bytes = {1, 2, 3, 4};
  ByteReader reader(bytes);
  ByteReader sub = reader.Sub(2);
  EXPECT_EQ(sub.U16(), 0x0201);
  sub.Skip(1);
  EXPECT_FALSE(sub.Ok());
  EXPECT_TRUE(reader.Ok());
  EXPECT_EQ(reader.U16(), 0x0403);
  EXPECT_FALSE(reader.Sub(1).Ok());
  EXPECT_FALSE(reader.Ok());
}

}  // namespace
}  // namespace capsule::platform
