// Any bytes, decoded in whatever calls, give what the slow model of the tests says: result words,
// output, and how far the source is used up.
//
// Input: flags, source piece, destination room (one byte each), then the source of a series of
// units.
#include <algorithm>
#include <cstdint>

#include "capsule/compression/lzs.h"
#include "capsule/compression/processor.h"
#include "fuzz/check.h"
#include "tests/compression/lzs_model.h"

namespace {

using capsule::fuzz::Require;
using capsule::test::Bytes;
using capsule::test::ModelResult;

constexpr size_t kMaxCalls = 2000;
constexpr size_t kMaxOutput = 100000;
constexpr uint8_t kPortable = 0x80;
constexpr uint32_t kRoomUnit = 16;  // rooms below and above what the inner loop needs

void Compare(const Bytes& all, uint16_t flags, uint32_t piece, uint32_t offeredRoom) {
  Bytes history(capsule::LzsSizeOfDecompressionHistory());
  capsule::LzsInitDecompressionHistory(history.data());
  capsule::test::ModelDecompressor model;
  Bytes source;
  Bytes room(offeredRoom);
  size_t next = 0;
  size_t total = 0;
  uint32_t written = 0;
  bool needsSource = true;
  bool needsRoom = true;
  for (size_t calls = 0; calls < kMaxCalls && total < kMaxOutput; ++calls) {
    if (needsSource) {
      if (next == all.size() && calls != 0) return;
      const auto from = all.begin() + static_cast<std::ptrdiff_t>(next);
      source.assign(from, from + std::min<std::ptrdiff_t>(piece, all.end() - from));
    }
    if (needsRoom) written = 0;
    const ModelResult expected = model.Call(source, offeredRoom, flags);
    const unsigned char* in = source.data();
    unsigned char* out = room.data();
    auto inCount = static_cast<uint32_t>(source.size());
    uint32_t outCount = offeredRoom;
    const uint16_t word =
        capsule::LzsDecompress(&in, &out, &inCount, &outCount, history.data(), flags);
    Require(word == expected.word, "the result word is the model's");
    if (word == 0 || expected.isIdle) return;
    Require(std::equal(expected.out.begin(), expected.out.end(), room.begin() + written),
            "the output is the model's");
    written += static_cast<uint32_t>(expected.out.size());
    total += expected.out.size();
    needsSource = (word & (capsule::LzsInputUsedUp | capsule::LzsUnitComplete)) != 0;
    needsRoom = (word & (capsule::LzsOutputFull | capsule::LzsUnitComplete)) != 0;
    const auto consumed = static_cast<size_t>(in - source.data());
    Require(consumed == (needsSource ? expected.consumed : 0), "the source stands where it must");
    Require(offeredRoom - outCount == (needsRoom ? written : 0), "and so does the destination");
    if (needsSource) next += consumed;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4 || size > 6000) return 0;
  const auto flags = static_cast<uint16_t>(data[0] & capsule::LzsKeepHistory);
  capsule::lzs::UsePortableCode((data[0] & kPortable) != 0);
  Compare(Bytes(data + 3, data + size), flags, data[1] * 8U + 1, data[2] * kRoomUnit + 1);
  return 0;
}
