#include "capsule/host/unit_decoder.h"

#include <algorithm>
#include <array>

#include "capsule/compression/lzs.h"

namespace capsule::host {
namespace {

constexpr size_t kReach = 2048;  // a unit reaches back 2047 bytes

std::string Count(uint64_t n) { return std::to_string(n); }

bool AllZero(std::span<const unsigned char> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](unsigned char b) { return b == 0; });
}

}  // namespace

UnitDecoder::UnitDecoder() : m_History(LzsSizeOfDecompressionHistory()) { Reset(); }

void UnitDecoder::Reset() { LzsInitDecompressionHistory(m_History.data()); }

void UnitDecoder::Pretend(unsigned char value) {
  Reset();
  std::array<unsigned char, kReach> bytes;
  std::array<unsigned char, kReach> room;
  bytes.fill(value);
  const unsigned char* source = bytes.data();
  unsigned char* destination = room.data();
  uint32_t sourceLeft = kReach;
  uint32_t destinationLeft = kReach;
  LzsDecompress(&source, &destination, &sourceLeft, &destinationLeft, m_History.data(),
                LzsStoredBlock | LzsKeepHistory);
}

std::string UnitDecoder::Decode(std::span<const unsigned char> payload,
                                std::span<unsigned char> out) {
  const unsigned char* source = payload.data();
  unsigned char* destination = out.data();
  auto sourceLeft = static_cast<uint32_t>(payload.size());
  auto destinationLeft = static_cast<uint32_t>(out.size());
  const uint16_t result = LzsDecompress(&source, &destination, &sourceLeft, &destinationLeft,
                                        m_History.data(), LzsKeepHistory);
  if (result == 0) return "compressed data is corrupt";
  if ((result & LzsUnitComplete) == 0) {
    return (result & LzsOutputFull) != 0
               ? "decodes to more than the " + Count(out.size()) + " bytes that it states"
               : "compressed data has no end within its " + Count(payload.size()) + " bytes";
  }
  if (destinationLeft != 0) {
    return "decodes to " + Count(out.size() - destinationLeft) + " bytes instead of " +
           Count(out.size());
  }
  if (!AllZero(payload.last(sourceLeft))) {
    return Count(sourceLeft) + " bytes follow the end of the compressed data";
  }
  return {};
}

}  // namespace capsule::host
