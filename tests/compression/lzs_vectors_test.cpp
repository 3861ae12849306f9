// Known-good call sequences, from tests/data/vectors.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "capsule/compression/stream_compressor.h"
#include "lzs_calls.h"
#include "tests/support/json.h"

namespace capsule::test {
namespace {

Bytes FromHex(const std::string& text) {
  Bytes bytes(text.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<unsigned char>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
  return bytes;
}

// Calls `check` with every object of a file; how many there were.
template <typename Check>
size_t ForEachVector(const std::string& name, Check check) {
  std::ifstream file(std::string(CAPSULE_TEST_DATA) + "/vectors/" + name);
  std::string line;
  size_t count = 0;
  while (std::getline(file, line)) {
    const Json vector = ParseJson(line);
    SCOPED_TRACE(vector.at("name").get<std::string>());
    check(vector);
    if (testing::Test::HasFatalFailure()) break;
    ++count;
  }
  return count;
}

// The variables of a caller, who offers new ones or calls again with the same. All that was ever
// offered stays, since a paused call goes on in it whatever the variables say.
template <typename Codec>
void RunCalls(const Json& vector, MovingArea& area, Codec codec) {
  Random random(7);
  std::vector<Buffer> offered;
  const unsigned char* in = nullptr;
  unsigned char* out = nullptr;
  const unsigned char* outStart = nullptr;
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
    const uint16_t word = codec(&in, &out, &inCount, &outCount, area.Get(), call);
    ASSERT_EQ(word, expect.at("result").get<uint16_t>()) << "call " << i;
    ASSERT_EQ(in - inBefore, expect.at("consumed").get<long>()) << "call " << i;
    const bool isOutDone = (word & (LzsOutputFull | LzsUnitComplete)) != 0;
    const Bytes written =
        isOutDone ? Bytes(outStart, static_cast<const unsigned char*>(out)) : Bytes();
    ASSERT_EQ(written, FromHex(expect.at("out"))) << "call " << i;
    if (word != 0) isOutStored = !isOutDone;
  }
}

TEST(LzsVectors, Compress) {
  const size_t count = ForEachVector("codec_compress.jsonl", [](const Json& vector) {
    MovingArea area(LzsSizeOfCompressionHistory(), [](void*) -> uint16_t { return 1; });
    if (vector.value("prepared", true)) LzsInitCompressionHistory(area.Get());
    RunCalls(vector, area, [](auto... handles) {
      auto call = std::make_tuple(handles...);
      const Json& json = std::get<5>(call);
      return LzsCompress(std::get<0>(call), std::get<1>(call), std::get<2>(call), std::get<3>(call),
                         std::get<4>(call), json.at("flags").get<uint16_t>(),
                         json.at("effort").get<uint16_t>());
    });
  });
  EXPECT_EQ(count, 294U);
}

TEST(LzsVectors, Decode) {
  const size_t count = ForEachVector("codec_decode.jsonl", [](const Json& vector) {
    MovingArea area(LzsSizeOfDecompressionHistory(), [](void*) -> uint16_t { return 1; });
    if (vector.value("prepared", true)) LzsInitDecompressionHistory(area.Get());
    RunCalls(vector, area, [](auto... handles) {
      auto call = std::make_tuple(handles...);
      return LzsDecompress(std::get<0>(call), std::get<1>(call), std::get<2>(call),
                           std::get<3>(call), std::get<4>(call),
                           std::get<5>(call).at("flags").template get<uint16_t>());
    });
  });
  EXPECT_EQ(count, 61U);
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
  const size_t count = ForEachVector("codec_stream.jsonl", [](const Json& vector) {
    StreamCompressor stream(vector.at("piece_size"), vector.at("flags"), vector.at("effort"));
    for (const Json& step : vector.at("ops")) {
      const auto op = step.at("op").get<std::string>();
      if (op == "reset") stream.ResetCompressionHistory();
      if (op == "level") SetLevel(stream, step.at("level"));
      if (op == "compress") CheckCompress(stream, step);
      if (testing::Test::HasFatalFailure()) return;
    }
  });
  EXPECT_EQ(count, 9U);
}

}  // namespace
}  // namespace capsule::test
