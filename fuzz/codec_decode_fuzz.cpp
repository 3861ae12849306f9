// Any bytes, decoded whole and in small pieces, give the same output and result, and never more
// than there is room for.
//
// Input: source piece, destination room (one byte each), then the stream.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "capsule/compression/lzs.h"
#include "fuzz/check.h"

namespace {

using capsule::fuzz::Require;
using Bytes = std::vector<unsigned char>;

constexpr uint32_t kCapacity = 70000;

struct Decoded {
  Bytes output;
  bool corrupt = false;
  bool complete = false;
};

Decoded Decode(const Bytes& stream, uint32_t piece, uint32_t room) {
  Bytes history(capsule::LzsSizeOfDecompressionHistory());
  capsule::LzsInitDecompressionHistory(history.data());
  Decoded decoded;
  Bytes space(room);
  uint32_t at = 0;
  const unsigned char* source = nullptr;
  unsigned char* destination = nullptr;
  uint32_t sourceCount = 0;
  uint32_t destinationCount = 0;
  uint16_t result = capsule::LzsInputUsedUp | capsule::LzsOutputFull;
  while (decoded.output.size() < kCapacity) {
    if ((result & capsule::LzsInputUsedUp) != 0) {
      if (at == stream.size() && at != 0) break;
      source = stream.data() + at;
      sourceCount = std::min(piece, static_cast<uint32_t>(stream.size()) - at);
      at += sourceCount;
    }
    if ((result & capsule::LzsOutputFull) != 0) {
      destination = space.data();
      destinationCount = std::min(room, kCapacity - static_cast<uint32_t>(decoded.output.size()));
    }
    const uint32_t offered = destinationCount;
    result = capsule::LzsDecompress(&source, &destination, &sourceCount, &destinationCount,
                                    history.data(), 0);
    decoded.corrupt = result == 0;
    decoded.complete = (result & capsule::LzsUnitComplete) != 0;
    if ((result & (capsule::LzsOutputFull | capsule::LzsUnitComplete)) != 0) {
      const uint32_t produced = offered - destinationCount;
      Require(produced <= offered, "no more output than room");
      decoded.output.insert(decoded.output.end(), space.begin(), space.begin() + produced);
    }
    if (decoded.corrupt || decoded.complete || stream.empty()) break;
  }
  return decoded;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 20000) return 0;
  const Bytes stream(data + 2, data + size);
  const Decoded whole = Decode(stream, static_cast<uint32_t>(stream.size()) + 1, kCapacity);
  const Decoded pieces = Decode(stream, data[0] + 1U, data[1] + 1U);
  if (whole.output.size() >= kCapacity) return 0;
  Require(whole.complete == pieces.complete, "the end is seen in whatever pieces");
  if (whole.complete) Require(whole.output == pieces.output, "pieces give the same output");
  return 0;
}
