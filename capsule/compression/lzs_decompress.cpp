// LzsDecompress: the resumable shell around the inner loop.
//
// Input. The next bit is `bitOffset` bits into the next source byte; nothing is read ahead, so
// behind an end marker the source stands right behind its padding. A token that the source cuts
// short is carried: its bytes, at most three, wait in the area for up to four bytes of the next
// source, which complete any token (1). Only those are decoded from the carry buffer; then decoding
// goes on in the source.
//
// Output. Offsets are resolved in the bytes right before the write position. While those are kept
// history, output is staged behind a copy of it; once it is 2047 bytes, it is delivered and
// decoding goes on in the destination (2). At the end of a call what was staged is delivered, so
// nothing decoded is ever held back (3): when the destination is full, the next token is left in
// the source, unless it is the end marker.
//
//   Between ---token---> Token <---> Groups ---end marker---> Between     Step
//   any state ---corrupt offset---> Corrupt, until prepared anew
#include <algorithm>
#include <cstring>

#include "capsule/compression/decompress_call.h"
#include "capsule/compression/lzs.h"

namespace capsule {
namespace lzs {
namespace {

constexpr uint16_t kAllFlags = LzsStoredBlock | LzsKeepHistory;
constexpr uint32_t kJoined = 4;  // source bytes taken to complete a carried token
static_assert(kMaxCarried + kJoined == kCarrySize);
static_assert((kMaxCarried + kJoined) * 8 >= 7 + 2 * kMaxHeaderBits);

}  // namespace

// Whether the area holds what no call leaves behind.
bool DecompressCall::IsDamaged() const {
  if (m_area.status < DecodeStatus::Between || m_area.status >= DecodeStatus::Corrupt ||
      m_area.saved > PendingSide::Destination || m_area.historyCount > kHistoryBufferSize ||
      m_area.carried > kMaxCarried || m_area.bitOffset > 7)
    return true;
  const bool hasSource =
      m_area.carried != 0 || (m_area.saved == PendingSide::Source && m_area.savedCount != 0);
  if (m_area.bitOffset != 0 && !hasSource) return true;
  const bool hasMatch = m_area.matchRest != 0 || m_area.status == DecodeStatus::Groups;
  return hasMatch && (m_area.matchOffset == 0 || m_area.matchOffset > kMaxOffset ||
                      m_area.matchOffset > m_area.historyCount);
}

void DecompressCall::TakeHandles(const DecompressHandles& handles) {
  const unsigned char* source = handles.source;
  unsigned char* destination = handles.destination;
  uint32_t sourceCount = handles.sourceCount;
  uint32_t destinationCount = handles.destinationCount;
  void* saved = nullptr;
  const uint64_t pointer = m_area.savedPointer;
  std::memcpy(&saved, &pointer, sizeof saved);
  if (m_area.saved == PendingSide::Source) {
    source = static_cast<const unsigned char*>(saved);
    sourceCount = m_area.savedCount;
  }
  if (m_area.saved == PendingSide::Destination) {
    destination = static_cast<unsigned char*>(saved);
    destinationCount = m_area.savedCount;
  }
  m_source = source;
  m_sourceEnd = source + sourceCount;
  m_dest = destination;
  m_destStart = destination;
  m_destEnd = destination + destinationCount;
}

// Nothing kept, nothing carried, nothing begun.
bool DecompressCall::IsIdle() const {
  return m_area.historyCount == 0 && m_area.carried == 0 && m_area.saved == PendingSide::None &&
         m_area.status == DecodeStatus::Between;
}

bool DecompressCall::CopyStored(DecompressHandles& handles) {
  TakeHandles(handles);
  const uint32_t count = SourceLeft();
  if (count != DestinationLeft() || m_area.status != DecodeStatus::Between || m_area.carried != 0)
    return false;
  if (count != 0) std::memcpy(m_dest, m_source, count);
  Remember(m_dest, count);
  m_area.saved = PendingSide::None;
  handles = {m_sourceEnd, m_destEnd, 0, 0, handles.history, 0};
  return true;
}

void DecompressCall::End(DecompressHandles& handles) {
  if (m_end == StepResult::Corrupt) {
    m_area.status = DecodeStatus::Corrupt;
    handles.result = 0;
    return;
  }
  EndOutput();
  const bool isUnitEnd = m_end == StepResult::UnitEnd;
  if (isUnitEnd && (m_flags & LzsKeepHistory) == 0) m_area.historyCount = 0;

  uint16_t result = SourceLeft() == 0 ? LzsInputUsedUp : 0;
  if (DestinationLeft() == 0) result |= LzsOutputFull;
  if (isUnitEnd) result |= LzsUnitComplete;
  const void* saved = nullptr;
  m_area.saved = PendingSide::None;
  if ((result & (LzsInputUsedUp | LzsUnitComplete)) != 0) {
    handles.source = m_source;
    handles.sourceCount = SourceLeft();
  } else {
    m_area.saved = PendingSide::Source;
    saved = m_source;
    m_area.savedCount = SourceLeft();
  }
  if ((result & (LzsOutputFull | LzsUnitComplete)) != 0) {
    handles.destination = m_dest;
    handles.destinationCount = DestinationLeft();
  } else {
    m_area.saved = PendingSide::Destination;
    saved = m_dest;
    m_area.savedCount = DestinationLeft();
  }
  uint64_t pointer = 0;
  std::memcpy(&pointer, &saved, sizeof saved);
  m_area.savedPointer = pointer;
  handles.result = result;
}

void DecompressCall::BeginOutput() {
  m_state.bitOffset = m_area.bitOffset;
  m_state.matchRest = m_area.matchRest;
  m_state.matchOffset = m_area.matchOffset;
  m_state.status = m_area.status;
  m_staged = m_area.historyCount != 0;
  if (!m_staged) {
    m_state.outBase = m_state.out = m_dest;
    m_state.outEnd = m_destEnd;
    return;
  }
  const uint32_t kept = std::min<uint32_t>(m_area.historyCount, kMaxOffset);
  std::memcpy(m_stage, m_area.history + m_area.historyCount - kept, kept);
  m_stageStart = m_stage + kept;
  m_state.outBase = m_stage;
  m_state.out = m_stageStart;
  m_state.outEnd = m_stageStart + std::min(DestinationLeft(), kStageSize);
}

// Delivers what was staged. True if there is more room, in which decoding then goes on directly.
bool DecompressCall::LeaveStage() {
  const uint32_t count = Staged();
  if (count != 0) std::memcpy(m_dest, m_stageStart, count);
  m_dest += count;
  if (count < kMaxOffset || m_dest == m_destEnd) return false;
  m_staged = false;
  m_state.outBase = m_destStart;
  m_state.out = m_dest;
  m_state.outEnd = m_destEnd;
  return true;
}

// Delivers the output and lets the buffer end with the last of it, as far as it is still wanted.
void DecompressCall::EndOutput() {
  if (m_staged) {
    Remember(m_stageStart, Staged());
  } else {
    m_dest = m_state.out;
    Remember(m_destStart, static_cast<uint32_t>(m_dest - m_destStart));
  }
  m_area.bitOffset = static_cast<uint8_t>(m_state.bitOffset);
  m_area.matchRest = m_state.matchRest;
  // Between tokens it is that of any match before.
  const bool hasMatch = m_state.matchRest != 0 || m_state.status == DecodeStatus::Groups;
  m_area.matchOffset = static_cast<uint16_t>(hasMatch ? m_state.matchOffset : 0);
  m_area.status = m_state.status;
}

// Adds output that is not in the buffer to the history.
void DecompressCall::Remember(const unsigned char* bytes, uint32_t count) {
  if (count >= kMaxOffset) {
    std::memcpy(m_area.history, bytes + count - kMaxOffset, kMaxOffset);
    m_area.historyCount = kMaxOffset;
    return;
  }
  if (m_area.historyCount + count > kHistoryBufferSize) {
    std::memmove(m_area.history, m_area.history + m_area.historyCount - kMaxOffset, kMaxOffset);
    m_area.historyCount = kMaxOffset;
  }
  if (count != 0) std::memcpy(m_area.history + m_area.historyCount, bytes, count);
  m_area.historyCount = static_cast<uint16_t>(m_area.historyCount + count);
}

bool DecompressCall::Advance() {
  m_end = StepResult::Go;
  while (m_end == StepResult::Go) {
    m_end = m_area.carried != 0 ? DecodeCarried() : DecodeSource();
    if (m_end == StepResult::InnerLoop) return true;
    if (m_end == StepResult::Corrupt) break;
    const bool isFull = m_end == StepResult::OutputFull;
    if (m_staged && m_end != StepResult::Go) {
      if (LeaveStage() && isFull) m_end = StepResult::Go;
    }
  }
  return false;
}

// Decodes the carried token together with the first bytes of the source.
StepResult DecompressCall::DecodeCarried() {
  const uint32_t carried = m_area.carried;
  const uint32_t taken = std::min(SourceLeft(), kJoined);
  std::memcpy(m_joined, m_area.carry, carried);
  if (taken != 0) std::memcpy(m_joined + carried, m_source, taken);
  m_state.in = m_joined;
  m_state.inEnd = m_joined + carried + taken;
  StepResult result = StepResult::Go;
  while (result == StepResult::Go && m_state.in < m_joined + carried) result = Step();
  if (result == StepResult::NeedInput) {
    // All of the source is in the carry buffer now.
    m_source += taken;
    Carry();
  } else if (m_state.in >= m_joined + carried) {
    m_source += (m_state.in - m_joined) - carried;
    m_area.carried = 0;
  }
  return result;
}

StepResult DecompressCall::DecodeSource() {
  if (!m_isInLoop) {
    m_state.in = m_source;
    m_state.inEnd = m_sourceEnd;
  }
  StepResult result = StepResult::Go;
  while (result == StepResult::Go) {
    if (!m_isInLoop && m_state.status == DecodeStatus::Token && m_state.matchRest == 0 &&
        m_state.inEnd - m_state.in >= kFastInput && m_state.Room() >= kFastOutput) {
      m_isInLoop = true;
      return StepResult::InnerLoop;
    }
    m_isInLoop = false;
    const bool isStageOver = m_staged && Staged() >= kMaxOffset && Staged() < DestinationLeft();
    result = isStageOver ? StepResult::OutputFull : Step();
  }
  m_source = m_state.in;
  if (result == StepResult::NeedInput) {
    m_source = m_sourceEnd;
    Carry();
  }
  return result;
}

// Keeps the token that the input cuts short.
void DecompressCall::Carry() {
  const auto count = static_cast<uint32_t>(m_state.inEnd - m_state.in);
  if (count != 0) std::memmove(m_area.carry, m_state.in, count);
  m_area.carried = static_cast<uint8_t>(count);
}

// One token, one group, or what the destination can take of a match.
StepResult DecompressCall::Step() {
  if (m_state.matchRest != 0) return CopyRest();
  return m_state.status == DecodeStatus::Groups ? ReadGroup() : ReadToken();
}

StepResult DecompressCall::CopyRest() {
  const uint32_t count = std::min(m_state.matchRest, m_state.Room());
  CopyMatch(m_state.out, m_state.matchOffset, count);
  m_state.out += count;
  m_state.matchRest -= count;
  return m_state.matchRest == 0 ? StepResult::Go : StepResult::OutputFull;
}

// The next 24 bits, left-aligned in 32; behind the end of the input they are 0.
uint32_t DecompressCall::PeekBits(uint64_t available) const {
  uint32_t bits = 0;
  for (uint32_t i = 0; i * 8 < available + m_state.bitOffset && i < 4; ++i)
    bits |= static_cast<uint32_t>(m_state.in[i]) << (24 - 8 * i);
  return bits << m_state.bitOffset;
}

StepResult DecompressCall::ReadToken() {
  const uint64_t available = m_state.BitsLeft();
  const uint32_t bits = PeekBits(available);
  if (available < kLiteralBits) return StepResult::NeedInput;
  if (bits >> 31 != 0) return ReadMatch(bits, available);
  if (m_state.Room() == 0) return StepResult::OutputFull;
  m_state.status = DecodeStatus::Token;
  *m_state.out++ = static_cast<unsigned char>(bits >> 23);
  m_state.Skip(kLiteralBits);
  return StepResult::Go;
}

StepResult DecompressCall::ReadMatch(uint32_t bits, uint64_t available) {
  const bool isShort = (bits >> 30 & 1) != 0;
  const uint32_t offset = isShort ? bits >> 23 & kMaxShortOffset : bits >> 19 & kMaxOffset;
  if (isShort && offset == 0) return EndUnit();
  const uint32_t offsetBits = isShort ? kShortOffsetBits : kLongOffsetBits;
  const uint32_t code = bits << offsetBits >> 28;
  const uint32_t codeBits = offsetBits + kLengthBits[code];
  if (available < codeBits) return StepResult::NeedInput;
  if (m_state.Room() == 0) return StepResult::OutputFull;
  if (IsCorruptOffset(offset, m_state.out - m_state.outBase)) return StepResult::Corrupt;
  m_state.Skip(codeBits);
  m_state.matchOffset = offset;
  m_state.matchRest = kLengths[code];
  m_state.status = code == kFullGroup ? DecodeStatus::Groups : DecodeStatus::Token;
  return StepResult::Go;
}

StepResult DecompressCall::ReadGroup() {
  const uint64_t available = m_state.BitsLeft();
  if (available < kGroupBits) return StepResult::NeedInput;
  const uint32_t group = PeekBits(available) >> 28;
  m_state.Skip(kGroupBits);
  m_state.matchRest = group;
  if (group < kFullGroup) m_state.status = DecodeStatus::Token;
  return StepResult::Go;
}

// Behind the end marker the next byte begins.
StepResult DecompressCall::EndUnit() {
  m_state.Skip(kEndMarkerBits);
  if (m_state.bitOffset != 0) ++m_state.in;
  m_state.bitOffset = 0;
  m_state.status = DecodeStatus::Between;
  return StepResult::UnitEnd;
}

bool IsPrepared(const void* history) {
  return history != nullptr &&
         static_cast<const DecompressionArea*>(history)->signature == kDecompressionSignature;
}

void Decompress(DecompressHandles& handles, uint16_t flags) {
  handles.result = 0;
  if ((flags & ~kAllFlags) != 0 || !IsPrepared(handles.history)) return;
  DecompressCall call(*static_cast<DecompressionArea*>(handles.history), flags);
  if (call.IsDamaged()) return;
  if ((flags & LzsStoredBlock) != 0) {
    if (call.CopyStored(handles)) handles.result = LzsInputUsedUp | LzsOutputFull;
    return;
  }
  if (handles.sourceCount == 0 && call.IsIdle()) {
    handles.result = LzsInputUsedUp;
    return;
  }
  call.Begin(handles);
  while (call.Advance()) DecodeFast(call.State());
  call.End(handles);
}

}  // namespace lzs

uint16_t LzsSizeOfDecompressionHistory() { return lzs::kDecompressionAreaSize; }

uint16_t LzsInitDecompressionHistory(void* history) {
  if (history == nullptr) return 0;
  auto& area = *static_cast<lzs::DecompressionArea*>(history);
  std::memset(history, 0, sizeof area);
  area.signature = lzs::kDecompressionSignature;
  area.status = lzs::DecodeStatus::Between;
  return 1;
}

uint16_t LzsDecompress(const unsigned char** source, unsigned char** destination,
                       uint32_t* sourceCount, uint32_t* destinationCount, void* history,
                       uint16_t flags) {
  if (!source || !destination || !sourceCount || !destinationCount || !history) return 0;
  lzs::DecompressHandles handles{*source,           *destination, *sourceCount,
                                 *destinationCount, history,      0};
  lzs::Decompress(handles, flags);
  *source = handles.source;
  *destination = handles.destination;
  *sourceCount = handles.sourceCount;
  *destinationCount = handles.destinationCount;
  return handles.result;
}

}  // namespace capsule
