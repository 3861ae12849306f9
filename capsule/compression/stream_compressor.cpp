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
    : m_input(kInputSize),
      m_output(kOutputSize),
      m_pieceSize(std::clamp<uint32_t>(pieceSize, 1, kInputSize)),
      m_callFlags(flags),
      m_flags(flags),
      m_effort(effort),
      m_result(kResultCapacity) {}

StreamCompressor::~StreamCompressor() = default;

int StreamCompressor::CompressBuffer(const unsigned char* source, uint32_t length,
                                     unsigned char* destination, uint32_t capacity) {
  const bool isOwn = destination == nullptr || capacity == 0;
  m_destNext = isOwn ? m_result.data() : destination;
  m_destLeft = isOwn ? kResultCapacity : capacity;
  m_callerNext = source;
  m_callerLeft = length;
  m_totalOut = 0;
  if (source == nullptr && length > 0) return 0;
  m_callFlags = m_flags;
  m_resultFlags = LzsInputUsedUp | LzsOutputFull;
  while ((m_resultFlags & LzsUnitComplete) == 0 && Pass()) {
  }
  return 0;
}

// One call of the codec; false if it refused.
bool StreamCompressor::Pass() {
  if ((m_resultFlags & LzsInputUsedUp) != 0) {
    m_sourceCount = std::min(m_pieceSize, m_callerLeft);
    if (m_sourceCount != 0) {
      std::memcpy(m_input.data(), m_callerNext, m_sourceCount);
      m_callerNext += m_sourceCount;
      m_callerLeft -= m_sourceCount;
    }
    m_source = m_input.data();
  }
  if ((m_resultFlags & LzsOutputFull) != 0) {
    m_out = m_output.data();
    m_outCount = kOutputOffered;
  }
  if (m_callerLeft == 0) m_callFlags |= LzsEndOfInput;

  m_resultFlags = LzsCompress(&m_source, &m_out, &m_sourceCount, &m_outCount,
                              m_history.m_area.data(), m_callFlags, m_effort);
  if (m_resultFlags == 0) {
    m_totalOut = 0;
    return false;
  }
  if ((m_resultFlags & (LzsOutputFull | LzsUnitComplete)) != 0) {
    const uint32_t produced = kOutputOffered - m_outCount;
    const uint32_t stored = std::min(produced, m_destLeft);
    std::memcpy(m_destNext, m_output.data(), stored);
    m_totalOut += produced;
    m_destNext += stored;
    m_destLeft -= stored;
  }
  return true;
}

uint32_t StreamCompressor::GetCompressedSize() const { return m_totalOut; }

const unsigned char* StreamCompressor::GetResult() const { return m_result.data(); }

void* StreamCompressor::ResetCompressionHistory() {
  LzsInitCompressionHistory(m_history.m_area.data());
  return m_history.m_area.data();
}

const CompressorState& StreamCompressor::State() const { return m_history; }

// The area stays where ResetCompressionHistory said.
void StreamCompressor::SetState(const CompressorState& state) {
  std::copy(state.m_area.begin(), state.m_area.end(), m_history.m_area.begin());
}

int StreamCompressor::SetFastCompression() {
  m_flags &= static_cast<uint16_t>(~kIndexFlags);
  m_effort = 0;
  return 0;
}

int StreamCompressor::SetMediumCompression() {
  m_flags = static_cast<uint16_t>((m_flags & ~kIndexFlags) | LzsIndexMatchEnds);
  m_effort = 7;
  return 0;
}

int StreamCompressor::SetMaximumCompression() {
  m_flags = static_cast<uint16_t>((m_flags & ~kIndexFlags) | LzsIndexMatchBodies);
  m_effort = 255;
  return 0;
}

}  // namespace capsule
