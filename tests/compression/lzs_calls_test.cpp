// The calling convention at its edges, with results that can be read.
#include "lzs_calls.h"

#include <gtest/gtest.h>

#include "capsule/compression/compression_area.h"
#include "capsule/compression/stream_compressor.h"

namespace capsule::test {
namespace {

constexpr uint16_t kDone = LzsInputUsedUp | LzsUnitComplete;

Bytes Compress(const Bytes& source, void* area, uint16_t flags, uint16_t effort) {
  Bytes out(source.size() * 2 + 64);
  const unsigned char* in = source.data();
  unsigned char* to = out.data();
  auto count = static_cast<uint32_t>(source.size());
  auto room = static_cast<uint32_t>(out.size());
  EXPECT_EQ(LzsCompress(&in, &to, &count, &room, area, flags | LzsEndOfInput, effort), kDone);
  out.resize(out.size() - room);
  return out;
}

// Decodes one unit that fills `out`; the result word.
uint16_t Decompress(const Bytes& coded, Bytes& out, void* area, uint16_t flags) {
  const unsigned char* in = coded.data();
  unsigned char* to = out.data();
  auto count = static_cast<uint32_t>(coded.size());
  auto room = static_cast<uint32_t>(out.size());
  return LzsDecompress(&in, &to, &count, &room, area, flags);
}

TEST(LzsCalls, CorruptOffsetsAreRefusedFromThenOn) {
  // One byte, then a match 2 back.
  MovingArea before(LzsSizeOfDecompressionHistory(), LzsInitDecompressionHistory);
  Bytes out(40);
  EXPECT_EQ(Decompress({0x30, 0xC0, 0x08, 0x00}, out, before.Get(), LzsKeepHistory), 0);
  // An offset of 0 in the long form.
  MovingArea area(LzsSizeOfDecompressionHistory(), LzsInitDecompressionHistory);
  EXPECT_EQ(Decompress({0x80, 0x00, 0x00}, out, area.Get(), 0), 0);
  EXPECT_EQ(Decompress({0xC0, 0x00}, out, area.Get(), 0), 0);
  LzsInitDecompressionHistory(area.Get());
  EXPECT_EQ(Decompress({0xC0, 0x00}, out, area.Get(), 0), kDone);
}

TEST(LzsCalls, ADamagedAreaIsHarmless) {
  Random random(11);
  for (int i = 0; i < 20000; ++i) {
    MovingArea area(LzsSizeOfDecompressionHistory(), LzsInitDecompressionHistory);
    auto* bytes = static_cast<unsigned char*>(area.Get());
    // Behind the saved pointer, which cannot be judged, and with no side saved.
    for (uint32_t at = 12; at < 48; ++at)
      if (random.Chance(3) && at != 23) bytes[at] = random.Byte();
    bytes[20] = 0x34;
    bytes[21] = 0x12;
    Bytes coded(random.Below(60));
    for (unsigned char& byte : coded) byte = random.Byte();
    Buffer source(coded);
    Buffer dest(random.Below(300));
    const unsigned char* in = source.Data();
    unsigned char* to = dest.Data();
    uint32_t count = source.Size();
    uint32_t room = dest.Size();
    const uint16_t result = LzsDecompress(&in, &to, &count, &room, area.Get(), LzsKeepHistory);
    ASSERT_LE(result, 7);
    ASSERT_LE(room, dest.Size());
    ASSERT_LE(count, source.Size());
  }
}

TEST(LzsCalls, PositionsAreMovedDownWithoutATrace) {
  MovingArea moved(LzsSizeOfCompressionHistory(), LzsInitCompressionHistory);
  MovingArea plain(LzsSizeOfCompressionHistory(), LzsInitCompressionHistory);
  Random random(12);
  for (int i = 0; i < 30; ++i) {
    Bytes source(random.Below(3000) + 1);
    for (unsigned char& byte : source) byte = random.Byte(5);
    const uint16_t flags = LzsKeepHistory | LzsIndexMatchBodies;
    ASSERT_EQ(Compress(source, moved.Get(), flags, 255), Compress(source, plain.Get(), flags, 255));
    auto& area = *static_cast<lzs::CompressionArea*>(moved.Get());
    lzs::CompressionState state{};
    std::memcpy(&state, area.state, sizeof state);
    state.position = lzs::RebasePositions(area, state.position);
    ASSERT_LT(state.position, 4096U);
    std::memcpy(area.state, &state, sizeof state);
  }
}

TEST(StreamCompressor, CollectsWhatPassesOneBufferOfOutputAndReportsWhatDoesNotFit) {
  StreamCompressor stream(16384, LzsKeepHistory, 0);
  stream.ResetCompressionHistory();
  Random random(14);
  Bytes source(120000);
  for (unsigned char& byte : source) byte = random.Byte();
  Bytes coded(200000);
  stream.CompressBuffer(source.data(), 120000, coded.data(), 200000);
  ASSERT_GT(stream.GetCompressedSize(), 120000U);
  coded.resize(stream.GetCompressedSize());
  MovingArea area(LzsSizeOfDecompressionHistory(), LzsInitDecompressionHistory);
  Bytes out(source.size());
  EXPECT_EQ(Decompress(coded, out, area.Get(), LzsKeepHistory), 7);
  EXPECT_EQ(out, source);

  stream.ResetCompressionHistory();
  Bytes small(70001, 0x77);
  stream.CompressBuffer(source.data(), 120000, small.data(), 70000);
  EXPECT_EQ(stream.GetCompressedSize(), coded.size());
  EXPECT_TRUE(std::equal(small.begin(), small.end() - 1, coded.begin()));
  EXPECT_EQ(small.back(), 0x77);

  StreamCompressor unprepared(16384, 0xFF, 0);
  unprepared.ResetCompressionHistory();
  unprepared.CompressBuffer(source.data(), 100, nullptr, 0);
  EXPECT_EQ(unprepared.GetCompressedSize(), 0U);
}

}  // namespace
}  // namespace capsule::test
