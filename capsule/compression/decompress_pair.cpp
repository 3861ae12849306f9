// Each of the two series stands where the inner loop comes next, or is at its end. While both stand
// there, the loops of both run as one. Everything else is done for one series at a time.
#include "capsule/compression/decompress_pair.h"

#include <optional>

#include "capsule/compression/decompress_call.h"
#include "capsule/compression/lzs.h"

namespace capsule::lzs {
namespace {

// Calls one after the other.
class Series {
 public:
  Series(std::span<DecompressHandles> calls, bool (*goesOn)(const DecompressHandles&))
      : m_calls(calls), m_goesOn(goesOn) {}

  // Up to where the inner loop comes next, in this call or a later one; false at the end of all.
  bool Advance() {
    while (!m_calls.empty()) {
      DecompressHandles& handles = m_calls.front();
      if (m_call && m_call->Advance()) return true;
      if (m_call) {
        m_call->End(handles);
        m_call.reset();
      } else if (MayRun(handles)) {
        m_call->Begin(handles);
        continue;
      } else {
        Decompress(handles, LzsKeepHistory);
      }
      m_calls = m_goesOn(handles) ? m_calls.subspan(1) : m_calls.last(0);
    }
    return false;
  }
  DecompressCall& Call() { return *m_call; }

 private:
  // False, without a call, if it is refused or has nothing to do.
  bool MayRun(const DecompressHandles& handles) {
    if (handles.sourceCount == 0 || !IsPrepared(handles.history)) return false;
    m_call.emplace(*static_cast<DecompressionArea*>(handles.history), LzsKeepHistory);
    if (m_call->IsDamaged()) m_call.reset();
    return m_call.has_value();
  }

  std::span<DecompressHandles> m_calls;
  bool (*m_goesOn)(const DecompressHandles&);
  std::optional<DecompressCall> m_call;
};

}  // namespace

void DecompressPair(std::span<DecompressHandles> a, std::span<DecompressHandles> b,
                    bool (*goesOn)(const DecompressHandles&)) {
  Series first(a, goesOn);
  Series second(b, goesOn);
  bool firstGoesOn = first.Advance();
  bool secondGoesOn = second.Advance();
  while (firstGoesOn || secondGoesOn) {
    if (firstGoesOn && secondGoesOn) {
      const Stopped stopped = DecodeFastPair(first.Call().State(), second.Call().State());
      if (!stopped.a) first.Call().StayInLoop();
      if (!stopped.b) second.Call().StayInLoop();
    } else {
      DecodeFast((firstGoesOn ? first : second).Call().State());
    }
    firstGoesOn = firstGoesOn && first.Advance();
    secondGoesOn = secondGoesOn && second.Advance();
  }
}

}  // namespace capsule::lzs
