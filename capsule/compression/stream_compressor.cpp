// The codec is called once for each piece of input and each full output area, until it has
// completed the unit. The input is copied to an area of its own first, and what was produced is
// copied on as far as the destination has room.
#include "capsule/compression/stream_compressor.h"

#include <algorithm>
#include <cstring>

#include "capsule/compression/lzs.h"

namespace capsule {
namespace {

constexpr uint32_t kInputSize = 16400;
constexpr uint32_t kOutputSize = 64016;
constexpr uint32_t kOutputOffered = 64000;
constexpr uint32_t kResultCapacity = 65535;
constexpr uint16_t kIndexFlags = LzsIndexMatchEnds | LzsIndexMatchBodies;

}  // namespace

StreamCompressor::StreamCompressor(uint32_t pieceSize, uint16_t flags, uint16_t effort)
    : m_pInput(kInputSize),
      m_pOutput(kOutputSize),
      m_nPieceSize(std::clamp<uint32_t>(pieceSize, 1, kInputSize)),
      m_pHistory(LzsSizeOfCompressionHistory()),
      m_nCallFlags(flags),
      m_nFlags(flags),
      m_nEffort(effort),
      m_pResult(kResultCapacity) {}

StreamCompressor::~StreamCompressor() = default;

int StreamCompressor::CompressBuffer(const unsigned char* source, uint32_t length,
                                     unsigned char* destination, uint32_t capacity) {
  const bool isOwn = destination == nullptr || capacity == 0;
  m_pDestNext = isOwn ? m_pResult.data() : destination;
  m_nDestLeft = isOwn ? kResultCapacity : capacity;
  m_pCallerNext = source;
  m_nCallerLeft = length;
  m_nTotalOut = 0;
  if (source == nullptr && length > 0) return 0;
  m_nCallFlags = m_nFlags;
  m_nResult = LzsInputUsedUp | LzsOutputFull;
  while ((m_nResult & LzsUnitComplete) == 0 && Pass()) {
  }
  return 0;
}

// One call of the codec; false if it refused.
bool StreamCompressor::Pass() {
  if ((m_nResult & LzsInputUsedUp) != 0) {
    m_nSourceCount = std::min(m_nPieceSize, m_nCallerLeft);
    if (m_nSourceCount != 0) {
      std::memcpy(m_pInput.data(), m_pCallerNext, m_nSourceCount);
      m_pCallerNext += m_nSourceCount;
      m_nCallerLeft -= m_nSourceCount;
    }
    m_pSource = m_pInput.data();
  }
  if ((m_nResult & LzsOutputFull) != 0) {
    m_pOut = m_pOutput.data();
    m_nOutCount = kOutputOffered;
  }
  if (m_nCallerLeft == 0) m_nCallFlags |= LzsEndOfInput;

  m_nResult = LzsCompress(&m_pSource, &m_pOut, &m_nSourceCount, &m_nOutCount, m_pHistory.data(),
                          m_nCallFlags, m_nEffort);
  if (m_nResult == 0) {
    m_nTotalOut = 0;
    return false;
  }
  if ((m_nResult & (LzsOutputFull | LzsUnitComplete)) != 0) {
    const uint32_t produced = kOutputOffered - m_nOutCount;
    const uint32_t stored = std::min(produced, m_nDestLeft);
    std::memcpy(m_pDestNext, m_pOutput.data(), stored);
    m_nTotalOut += produced;
    m_pDestNext += stored;
    m_nDestLeft -= stored;
  }
  return true;
}

uint32_t StreamCompressor::GetCompressedSize() const { return m_nTotalOut; }

const unsigned char* StreamCompressor::GetResult() const { return m_pResult.data(); }

void* StreamCompressor::ResetCompressionHistory() {
  LzsInitCompressionHistory(m_pHistory.data());
  return m_pHistory.data();
}

int StreamCompressor::SetFastCompression() {
  m_nFlags &= static_cast<uint16_t>(~kIndexFlags);
  m_nEffort = 0;
  return 0;
}

int StreamCompressor::SetMediumCompression() {
  m_nFlags = static_cast<uint16_t>((m_nFlags & ~kIndexFlags) | LzsIndexMatchEnds);
  m_nEffort = 7;
  return 0;
}

int StreamCompressor::SetMaximumCompression() {
  m_nFlags = static_cast<uint16_t>((m_nFlags & ~kIndexFlags) | LzsIndexMatchBodies);
  m_nEffort = 255;
  return 0;
}

}  // namespace capsule
