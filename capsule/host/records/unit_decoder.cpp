// A history is put into the decoder by giving it the bytes as a stored block, so the decoder's area
// needs no second way in. After a unit that is wrong the area is wiped, since the decoder may have
// kept pointers into buffers of the call.
#include "capsule/host/records/unit_decoder.h"

#include <algorithm>
#include <array>

#include "capsule/compression/decompress_pair.h"
#include "capsule/compression/decompression_area.h"
#include "capsule/compression/lzs.h"

namespace capsule::host {
namespace {

static_assert(kMaxHistory == lzs::kMaxOffset);

std::string Count(uint64_t n) { return std::to_string(n); }

// A whole unit in exactly its room, with nothing but zeros behind it.
bool IsSound(const lzs::DecompressHandles& call) {
  if ((call.result & LzsUnitComplete) == 0 || call.destinationCount != 0) return false;
  const std::span behind(call.source, call.sourceCount);
  return std::all_of(behind.begin(), behind.end(), [](unsigned char b) { return b == 0; });
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
  Unit unit{payload, out};
  lzs::DecompressHandles call = CallFor(unit);
  call.result = LzsDecompress(&call.source, &call.destination, &call.sourceCount,
                              &call.destinationCount, call.history, LzsKeepHistory);
  return Judge(call, unit);
}

void UnitDecoder::DecodePair(UnitDecoder& first, std::span<Unit> a, UnitDecoder& second,
                             std::span<Unit> b) {
  std::vector<lzs::DecompressHandles> callsOfA = first.CallsFor(a);
  std::vector<lzs::DecompressHandles> callsOfB = second.CallsFor(b);
  lzs::DecompressPair(callsOfA, callsOfB, IsSound);
  for (size_t i = 0; i < a.size(); ++i) a[i].fault = first.Judge(callsOfA[i], a[i]);
  for (size_t i = 0; i < b.size(); ++i) b[i].fault = second.Judge(callsOfB[i], b[i]);
}

lzs::DecompressHandles UnitDecoder::CallFor(const Unit& unit) {
  return {unit.payload.data(),
          unit.out.data(),
          static_cast<uint32_t>(unit.payload.size()),
          static_cast<uint32_t>(unit.out.size()),
          m_history.data(),
          0};
}

std::vector<lzs::DecompressHandles> UnitDecoder::CallsFor(std::span<const Unit> units) {
  std::vector<lzs::DecompressHandles> calls;
  calls.reserve(units.size());
  for (const Unit& unit : units) calls.push_back(CallFor(unit));
  return calls;
}

std::string UnitDecoder::Judge(const lzs::DecompressHandles& call, const Unit& unit) {
  if (IsSound(call)) return {};
  Forget();
  const size_t room = unit.out.size();
  if (call.result == 0) return "compressed data is corrupt";
  if ((call.result & LzsUnitComplete) == 0) {
    return (call.result & LzsOutputFull) != 0
               ? "decodes to more than the " + Count(room) + " bytes that it states"
               : "compressed data has no end within its " + Count(unit.payload.size()) + " bytes";
  }
  if (call.destinationCount != 0) {
    return "decodes to " + Count(room - call.destinationCount) + " bytes instead of " + Count(room);
  }
  return Count(call.sourceCount) + " bytes follow the end of the compressed data";
}

}  // namespace capsule::host
