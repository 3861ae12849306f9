#include "capsule/host/unit_decoder.h"

#include <algorithm>
#include <array>

#include "capsule/compression/decompression_area.h"
#include "capsule/compression/lzs.h"

namespace capsule::host {
namespace {

static_assert(kMaxHistory == lzs::kMaxOffset);

std::string Count(uint64_t n) { return std::to_string(n); }

bool AllZero(std::span<const unsigned char> bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](unsigned char b) { return b == 0; });
}

}  // namespace

UnitDecoder::UnitDecoder() : m_History(LzsSizeOfDecompressionHistory()) { Reset(); }

void UnitDecoder::Reset() { LzsInitDecompressionHistory(m_History.data()); }

std::span<const unsigned char> UnitDecoder::History() const {
  const void* bytes = m_History.data();
  const auto& area = *static_cast<const lzs::DecompressionArea*>(bytes);
  const std::span<const unsigned char> all(area.history, area.historyCount);
  return all.last(std::min(all.size(), kMaxHistory));
}

void UnitDecoder::Restore(std::span<const unsigned char> history) {
  Reset();
  std::array<unsigned char, kMaxHistory> room;
  const unsigned char* source = history.data();
  unsigned char* destination = room.data();
  auto sourceLeft = static_cast<uint32_t>(history.size());
  auto destinationLeft = static_cast<uint32_t>(room.size());
  if (sourceLeft == 0) return;
  LzsDecompress(&source, &destination, &sourceLeft, &destinationLeft, m_History.data(),
                LzsStoredBlock | LzsKeepHistory);
}

void UnitDecoder::Pretend(unsigned char value) {
  std::array<unsigned char, kMaxHistory> bytes;
  bytes.fill(value);
  Restore(bytes);
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
