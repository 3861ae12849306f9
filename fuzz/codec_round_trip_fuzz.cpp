// What is compressed comes back, in whatever pieces it goes in and comes out. Two compressors of
// units that say at a seam that they go on alike do so.
//
// Input: effort, flags, source piece, destination room (one byte each), then the data.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "capsule/compression/lzs.h"
#include "capsule/compression/stream_compressor.h"
#include "fuzz/check.h"

namespace {

using capsule::fuzz::Require;
using Bytes = std::vector<unsigned char>;

struct Choices {
  uint16_t effort;
  uint16_t flags;
  uint32_t piece;
  uint32_t room;
};

Bytes Compress(const Bytes& input, const Choices& choices) {
  Bytes history(capsule::LzsSizeOfCompressionHistory());
  capsule::LzsInitCompressionHistory(history.data());
  Bytes output;
  Bytes room(choices.room);
  uint32_t left = static_cast<uint32_t>(input.size());
  const unsigned char* source = input.data();
  uint32_t sourceCount = 0;
  uint16_t result = capsule::LzsInputUsedUp | capsule::LzsOutputFull;
  unsigned char* destination = nullptr;
  uint32_t destinationCount = 0;
  while ((result & capsule::LzsUnitComplete) == 0) {
    if ((result & capsule::LzsInputUsedUp) != 0) {
      sourceCount = std::min(left, choices.piece);
      left -= sourceCount;
    }
    if ((result & capsule::LzsOutputFull) != 0) {
      destination = room.data();
      destinationCount = choices.room;
    }
    const auto last = static_cast<uint16_t>(left == 0 ? capsule::LzsEndOfInput : 0);
    result =
        capsule::LzsCompress(&source, &destination, &sourceCount, &destinationCount, history.data(),
                             static_cast<uint16_t>(choices.flags | last), choices.effort);
    Require(result != 0, "nothing is refused");
    if ((result & (capsule::LzsOutputFull | capsule::LzsUnitComplete)) != 0) {
      output.insert(output.end(), room.begin(), room.end() - destinationCount);
    }
  }
  return output;
}

Bytes Decompress(const Bytes& unit, size_t size) {
  Bytes history(capsule::LzsSizeOfDecompressionHistory());
  capsule::LzsInitDecompressionHistory(history.data());
  Bytes output(size);
  const unsigned char* source = unit.data();
  unsigned char* destination = output.data();
  auto sourceCount = static_cast<uint32_t>(unit.size());
  auto destinationCount = static_cast<uint32_t>(output.size());
  const uint16_t result = capsule::LzsDecompress(&source, &destination, &sourceCount,
                                                 &destinationCount, history.data(), 0);
  Require((result & capsule::LzsUnitComplete) != 0, "a whole unit is decoded");
  Require(sourceCount == 0 && destinationCount == 0, "all bytes in and out");
  return output;
}

// Units of `piece` bytes: one compressor begins with the first, another with the third.
void GoOnAlike(const Bytes& input, const Choices& choices) {
  capsule::StreamCompressor first(choices.piece, choices.flags | capsule::LzsKeepHistory,
                                  choices.effort);
  capsule::StreamCompressor later(choices.piece, choices.flags | capsule::LzsKeepHistory,
                                  choices.effort);
  first.ResetCompressionHistory();
  later.ResetCompressionHistory();
  const uint32_t warmsFrom = 2 * choices.piece;
  bool isAlike = false;
  for (uint32_t at = 0; at < input.size(); at += choices.piece) {
    const uint32_t size = std::min(static_cast<uint32_t>(input.size()) - at, choices.piece);
    first.CompressBuffer(input.data() + at, size, nullptr, 0);
    if (at < warmsFrom) continue;
    later.CompressBuffer(input.data() + at, size, nullptr, 0);
    Require(
        !isAlike || std::equal(first.GetResult(), first.GetResult() + first.GetCompressedSize(),
                               later.GetResult(), later.GetResult() + later.GetCompressedSize()),
        "states that go on alike write the same");
    const bool isAlikeNow = first.State().GoesOnLike(later.State());
    Require(isAlikeNow || !isAlike, "and lead to such states");
    isAlike = isAlikeNow;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  const Choices choices{.effort = data[0],
                        .flags = static_cast<uint16_t>(
                            data[1] & (capsule::LzsIndexMatchEnds | capsule::LzsIndexMatchBodies)),
                        .piece = data[2] + 1U,
                        .room = data[3] + 16U};
  const Bytes input(data + 4, data + size);
  Require(Decompress(Compress(input, choices), input.size()) == input, "the round trip");
  GoOnAlike(input, choices);
  return 0;
}
