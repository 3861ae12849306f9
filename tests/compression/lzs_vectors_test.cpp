// Known-good call sequences, from tests/data/vectors.
#include <gtest/gtest.h>

#include <string>

#include "capsule/compression/stream_compressor.h"
#include "lzs_calls.h"
#include "tests/support/json.h"
#include "tests/support/temp_dir.h"

namespace capsule::test {
namespace {

Bytes FromHex(const std::string& text) {
  Bytes bytes(text.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<unsigned char>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
  return bytes;
}

// Calls `check` with every object of a file.
template <typename Check>
void ForEachVector(const std::string& name, size_t count, Check check) {
  const std::vector<Json> vectors =
      ParseJsonLines(ReadFile(std::string(CAPSULE_TEST_DATA) + "/vectors/" + name));
  EXPECT_EQ(vectors.size(), count);
  for (const Json& vector : vectors) {
    SCOPED_TRACE(vector.at("name").get<std::string>());
    check(vector);
    if (testing::Test::HasFatalFailure()) break;
  }
}

// The variables of a caller, who offers new ones or calls again with the same. All that was ever
// offered stays, since a paused call goes on in it whatever the variables say.
void RunCalls(const Json& vector, MovingArea& area, LzsCodec codec) {
  Random random(7);
  std::vector<Buffer> offered;
  const unsigned char* in = nullptr;
  unsigned char* out = nullptr;
  unsigned char* outStart = nullptr;
  uint32_t inCount = 0;
  uint32_t outCount = 0;
  bool isOutStored = false;
  for (size_t i = 0; i < vector.at("calls").size(); ++i) {
    const Json& call = vector.at("calls")[i];
    const Json& expect = vector.at("expect")[i];
    if (!call.at("src").is_null()) {
      offered.emplace_back(FromHex(call.at("src")));
      in = offered.back().Data();
      inCount = offered.back().Size();
    }
    if (!call.at("dst_room").is_null()) {
      offered.emplace_back(call.at("dst_room").get<uint32_t>());
      out = offered.back().Data();
      outCount = offered.back().Size();
    }
    const unsigned char* inBefore = in;
    if (!isOutStored) outStart = out;
    area.Move(random);
    const uint16_t word =
        codec(&in, &out, &inCount, &outCount, area.Get(), call.at("flags").get<uint16_t>(),
              call.value("effort", uint16_t{0}));
    ASSERT_EQ(word, expect.at("result").get<uint16_t>()) << "call " << i;
    ASSERT_EQ(in - inBefore, expect.at("consumed").get<long>()) << "call " << i;
    const bool isOutDone = (word & (LzsOutputFull | LzsUnitComplete)) != 0;
    const Bytes written = isOutDone ? Bytes(outStart, out) : Bytes();
    ASSERT_EQ(written, FromHex(expect.at("out"))) << "call " << i;
    if (word != 0) isOutStored = !isOutDone;
  }
}

TEST(LzsVectors, Compress) {
  ForEachVector("codec_compress.jsonl", 294, [](const Json& vector) {
    MovingArea area(LzsSizeOfCompressionHistory(), LzsInitCompressionHistory);
    RunCalls(vector, area, LzsCompress);
  });
}

TEST(LzsVectors, Decode) {
  ForEachVector("codec_decode.jsonl", 61, [](const Json& vector) {
    MovingArea area(LzsSizeOfDecompressionHistory(), LzsInitDecompressionHistory);
    RunCalls(vector, area, DecompressAsCodec);
  });
}

void SetLevel(StreamCompressor& stream, int level) {
  if (level >= 1 && level <= 3)
    stream.SetFastCompression();
  else if (level >= 4 && level <= 6)
    stream.SetMediumCompression();
  else
    stream.SetMaximumCompression();
}

void CheckCompress(StreamCompressor& stream, const Json& step) {
  const Bytes source = FromHex(step.at("src"));
  const auto capacity = step.at("capacity").get<uint32_t>();
  Bytes dest(capacity);
  ASSERT_EQ(stream.CompressBuffer(source.data(), static_cast<uint32_t>(source.size()),
                                  capacity == 0 ? nullptr : dest.data(), capacity),
            0);
  ASSERT_EQ(stream.GetCompressedSize(), step.at("size").get<uint32_t>());
  const Bytes expected = FromHex(step.at("out"));
  const unsigned char* stored = capacity == 0 ? stream.GetResult() : dest.data();
  ASSERT_EQ(Bytes(stored, stored + expected.size()), expected);
}

TEST(LzsVectors, Stream) {
  ForEachVector("codec_stream.jsonl", 9, [](const Json& vector) {
    StreamCompressor stream(vector.at("piece_size"), vector.at("flags"), vector.at("effort"));
    for (const Json& step : vector.at("ops")) {
      const auto op = step.at("op").get<std::string>();
      if (op == "reset") stream.ResetCompressionHistory();
      if (op == "level") SetLevel(stream, step.at("level"));
      if (op == "compress") CheckCompress(stream, step);
      if (testing::Test::HasFatalFailure()) return;
    }
  });
}

}  // namespace
}  // namespace capsule::test
