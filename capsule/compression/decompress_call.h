// A call of the decompressor, with its inner loop run from outside, so that those of two calls can
// run side by side. What its steps do is told in lzs_decompress.cpp.
#pragma once

#include "capsule/compression/decode_fast.h"
#include "capsule/compression/decode_state.h"
#include "capsule/compression/decompress_pair.h"
#include "capsule/compression/decompression_area.h"

namespace capsule::lzs {

// What may be staged: a full history, and as much as the inner loop leaves free.
constexpr uint32_t kStageSize = kMaxOffset + 2 * kFastOutput;

enum class StepResult { Go, InnerLoop, NeedInput, OutputFull, UnitEnd, Corrupt };

class DecompressCall {
 public:
  DecompressCall(DecompressionArea& area, uint16_t flags) : m_area(area), m_flags(flags) {}

  bool IsDamaged() const;
  bool IsIdle() const;
  // A call is begun, advanced until that says false, each time with the inner loop run on the state
  // behind it, and ended.
  void Begin(const DecompressHandles& handles) {
    TakeHandles(handles);
    BeginOutput();
  }
  // Up to where the inner loop comes next; false at the end of the call.
  bool Advance();
  DecodeState& State() { return m_state; }
  // The inner loop was left where it may go on, so no step is needed. One might enter a long match,
  // which the loop copies far faster.
  void StayInLoop() {
    m_source = m_state.in;
    m_isInLoop = false;
  }
  void End(DecompressHandles& handles);
  bool CopyStored(DecompressHandles& handles);

 private:
  void TakeHandles(const DecompressHandles& handles);
  void BeginOutput();
  StepResult DecodeCarried();
  StepResult DecodeSource();
  StepResult Step();
  StepResult CopyRest();
  StepResult ReadToken();
  StepResult ReadMatch(uint32_t bits, uint64_t available);
  StepResult ReadGroup();
  StepResult EndUnit();
  bool LeaveStage();
  void Carry();
  void EndOutput();
  void Remember(const unsigned char* bytes, uint32_t count);
  uint32_t PeekBits(uint64_t available) const;

  uint32_t SourceLeft() const { return static_cast<uint32_t>(m_sourceEnd - m_source); }
  uint32_t DestinationLeft() const { return static_cast<uint32_t>(m_destEnd - m_dest); }
  uint32_t Staged() const { return static_cast<uint32_t>(m_state.out - m_stageStart); }

  DecompressionArea& m_area;
  uint16_t m_flags;
  DecodeState m_state{};
  const unsigned char* m_source = nullptr;
  const unsigned char* m_sourceEnd = nullptr;
  unsigned char* m_dest = nullptr;  // delivered up to here
  unsigned char* m_destStart = nullptr;
  unsigned char* m_destEnd = nullptr;
  unsigned char m_joined[kCarrySize + 1] = {};  // what is carried, and what follows it
  StepResult m_end = StepResult::Go;
  bool m_isInLoop = false;  // the inner loop stands in the source, where a step comes next
  bool m_staged = false;
  unsigned char* m_stageStart = nullptr;
  unsigned char m_stage[kMaxOffset + kStageSize];
};

bool IsPrepared(const void* history);

// As LzsDecompress.
void Decompress(DecompressHandles& handles, uint16_t flags);

}  // namespace capsule::lzs
