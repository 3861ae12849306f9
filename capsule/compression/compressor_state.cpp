// What decides the further bits: the bytes in reach, the nearest position of every hash and the
// links from there, all as distances, and bits that are held back. Two areas that agree in these
// find the same candidates in the same order from then on. The marks for the second index are
// left out, since it only finds faster what the links lead to.
#include "capsule/compression/compressor_state.h"

#include <algorithm>
#include <cstring>

#include "capsule/compression/compression_area.h"
#include "capsule/compression/lzs.h"

namespace capsule {
namespace lzs {
namespace {

// An area, and its small state.
struct View {
  explicit View(const CompressionArea& bytes) : area(bytes) {
    std::memcpy(&state, area.state, sizeof state);
  }
  bool IsBetweenUnits() const {
    return area.signature == kCompressionSignature && state.unit != UnitState::Paused &&
           state.saved == SavedSide::None && state.phase == WritePhase::Search &&
           state.literals == 0 && state.matchRest == 0 && state.owedCount == 0;
  }
  uint32_t Reach() const { return std::min<uint32_t>(state.historyCount, kMaxOffset); }
  const unsigned char* HistoryEnd() const { return area.buffer + state.historyCount; }
  uint32_t HeadDistance(uint32_t hash) const { return state.position - area.heads[hash]; }
  uint32_t Further(uint32_t distance) const {
    return distance + area.chain[(state.position - distance) % kChainSize];
  }

  const CompressionArea& area;
  CompressionState state;
};

// From the nearest position of a hash on, for as long as the distances are in reach.
bool HaveSameChain(const View& a, const View& b, uint32_t hash) {
  uint32_t distance = a.HeadDistance(hash);
  uint32_t other = b.HeadDistance(hash);
  while (distance <= kMaxOffset && distance == other) {
    other = b.Further(distance);
    const uint32_t further = a.Further(distance);
    if (further == distance) return false;
    distance = further;
  }
  return distance > kMaxOffset && other > kMaxOffset;
}

bool GoOnAlike(const View& a, const View& b) {
  if (!a.IsBetweenUnits() || !b.IsBetweenUnits() || a.state.unit != b.state.unit) return false;
  if (a.state.unit == UnitState::Fresh) return true;
  if (a.state.bitCount != b.state.bitCount || a.state.bits != b.state.bits) return false;
  const uint32_t reach = a.Reach();
  if (reach != b.Reach()) return false;
  if (std::memcmp(a.HistoryEnd() - reach, b.HistoryEnd() - reach, reach) != 0) return false;
  for (uint32_t hash = 0; hash < kHashSize; ++hash)
    if (!HaveSameChain(a, b, hash)) return false;
  return true;
}

const CompressionArea& AsArea(const std::vector<unsigned char>& bytes) {
  const void* area = bytes.data();
  return *static_cast<const CompressionArea*>(area);
}

}  // namespace
}  // namespace lzs

CompressorState::CompressorState() : m_area(LzsSizeOfCompressionHistory()) {}

bool CompressorState::GoesOnLike(const CompressorState& other) const {
  return lzs::GoOnAlike(lzs::View(lzs::AsArea(m_area)), lzs::View(lzs::AsArea(other.m_area)));
}

}  // namespace capsule
