// A history is put into the decoder by giving it the bytes as a stored block, so the decoder's area
// needs no second way in. After a unit that is wrong the area is wiped, since the decoder may have
// kept pointers into buffers of the call.
#include "capsule/host/records/unit_decoder.h"

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

UnitDecoder::UnitDecoder() : m_history(LzsSizeOfDecompressionHistory()) { Reset(); }

void UnitDecoder::Reset() { LzsInitDecompressionHistory(m_history.data()); }

std::span<const unsigned char> UnitDecoder::History() const {
  const void* bytes = m_history.data();
  const auto& area = *static_cast<const lzs::DecompressionArea*>(bytes);
  const std::span<const unsigned char> all(area.history, area.historyCount);
  return all.last(std::min(all.size(), kMaxHistory));
}

// An area of zeros is one that was not prepared: whatever a decoder that has paused kept of its
// buffers is gone, and nothing decodes with it.
void UnitDecoder::Forget() {
  std::fill(m_history.begin(), m_history.end(), static_cast<unsigned char>(0));
}

void UnitDecoder::Restore(std::span<const unsigned char> history) {
  Reset();
  history = history.last(std::min(history.size(), kMaxHistory));
  std::array<unsigned char, kMaxHistory> room;
  const unsigned char* source = history.data();
  unsigned char* destination = room.data();
  auto sourceLeft = static_cast<uint32_t>(history.size());
  uint32_t destinationLeft = sourceLeft;
  if (sourceLeft == 0) return;
  LzsDecompress(&source, &destination, &sourceLeft, &destinationLeft, m_history.data(),
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
                                        m_history.data(), LzsKeepHistory);
  const bool isComplete = (result & LzsUnitComplete) != 0;
  const auto behind = payload.last(isComplete ? sourceLeft : 0);
  if (isComplete && destinationLeft == 0 && AllZero(behind)) return {};
  Forget();
  if (result == 0) return "compressed data is corrupt";
  if (!isComplete) {
    return (result & LzsOutputFull) != 0
               ? "decodes to more than the " + Count(out.size()) + " bytes that it states"
               : "compressed data has no end within its " + Count(payload.size()) + " bytes";
  }
  if (destinationLeft != 0) {
    return "decodes to " + Count(out.size() - destinationLeft) + " bytes instead of " +
           Count(out.size());
  }
  return Count(sourceLeft) + " bytes follow the end of the compressed data";
}

}  // namespace capsule::host
