// Any bytes, decoded whole and in small pieces, give the same output and result, and never more
// than there is room for. Side by side with themselves from another byte on, each gives what it
// gives alone.
//
// Input: source piece, destination room (one byte each), then the stream.
#include <algorithm>
#include <cstdint>
#include <vector>

#include "capsule/compression/decompress_pair.h"
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

constexpr size_t kSides = 2;
constexpr size_t kUnits = 3;
constexpr uint32_t kUnitRoom = 9000;

// Up to three units from `stream` on, with a history behind others or none.
struct Side {
  Side(const Bytes& stream, bool hasHistory) : history(capsule::LzsSizeOfDecompressionHistory()) {
    capsule::LzsInitDecompressionHistory(history.data());
    Bytes before(hasHistory ? 2500 : 0, 'h');
    const unsigned char* source = before.data();
    unsigned char* destination = before.data();
    auto sourceCount = static_cast<uint32_t>(before.size());
    uint32_t destinationCount = sourceCount;
    capsule::LzsDecompress(&source, &destination, &sourceCount, &destinationCount, history.data(),
                           capsule::LzsStoredBlock | capsule::LzsKeepHistory);
    const size_t third = stream.size() / kUnits;
    for (size_t i = 0; i < kUnits; ++i) {
      const auto from = stream.begin() + static_cast<std::ptrdiff_t>(i * third);
      units.emplace_back(from, i + 1 == kUnits ? stream.end() : from + static_cast<long>(third));
      rooms.emplace_back(kUnitRoom);
    }
    for (size_t i = 0; i < kUnits; ++i)
      calls.push_back({units[i].data(), rooms[i].data(), static_cast<uint32_t>(units[i].size()),
                       kUnitRoom, history.data(), 0});
  }
  static bool IsWhole(const capsule::lzs::DecompressHandles& call) {
    return (call.result & capsule::LzsUnitComplete) != 0;
  }
  void DecodeAlone() {
    for (auto& call : calls) {
      call.result =
          capsule::LzsDecompress(&call.source, &call.destination, &call.sourceCount,
                                 &call.destinationCount, call.history, capsule::LzsKeepHistory);
      if (!IsWhole(call)) return;
    }
  }
  void RequireSame(const Side& other) const {
    for (size_t i = 0; i < kUnits; ++i) {
      const auto& call = calls[i];
      const auto& otherCall = other.calls[i];
      Require(call.result == otherCall.result && call.sourceCount == otherCall.sourceCount &&
                  call.destinationCount == otherCall.destinationCount,
              "the same result side by side");
      if (!IsWhole(call)) return;
      Require(std::equal(rooms[i].begin(), rooms[i].end() - call.destinationCount,
                         other.rooms[i].begin()),
              "the same output side by side");
    }
    Require(history == other.history, "the same history side by side");
  }

  Bytes history;
  std::vector<Bytes> units;
  std::vector<Bytes> rooms;
  std::vector<capsule::lzs::DecompressHandles> calls;
};

void CompareSides(const Bytes& stream, size_t shift) {
  std::vector<Side> alone;
  std::vector<Side> paired;
  for (size_t i = 0; i < kSides; ++i) {
    const size_t from = i * std::min(shift, stream.size());
    const Bytes part(stream.begin() + static_cast<std::ptrdiff_t>(from), stream.end());
    alone.emplace_back(part, shift % 4 < 3);
    paired.emplace_back(part, shift % 4 < 3);
    alone.back().DecodeAlone();
  }
  capsule::lzs::DecompressPair(paired[0].calls, paired[1].calls, Side::IsWhole);
  for (size_t i = 0; i < kSides; ++i) paired[i].RequireSame(alone[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || size > 20000) return 0;
  const Bytes stream(data + 2, data + size);
  CompareSides(stream, data[0]);
  const Decoded whole = Decode(stream, static_cast<uint32_t>(stream.size()) + 1, kCapacity);
  const Decoded pieces = Decode(stream, data[0] + 1U, data[1] + 1U);
  if (whole.output.size() >= kCapacity) return 0;
  Require(whole.complete == pieces.complete, "the end is seen in whatever pieces");
  if (whole.complete) Require(whole.output == pieces.output, "pieces give the same output");
  return 0;
}
