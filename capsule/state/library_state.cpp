#include "capsule/state/library_state.h"

#include "capsule/compression/lzs.h"
#include "capsule/compression/stream_compressor.h"

namespace capsule {
namespace {

constexpr uint32_t kPieceSize = 16384;
constexpr uint16_t kEffort = 0;

thread_local LibraryState* t_pCurrent = nullptr;

LibraryState& ProcessState() {
  static LibraryState state;
  return state;
}

}  // namespace

LibraryState::LibraryState()
    : compressor(std::make_unique<StreamCompressor>(kPieceSize, LzsKeepHistory, kEffort)) {}

LibraryState::~LibraryState() = default;

LibraryState& CurrentLibraryState() { return t_pCurrent != nullptr ? *t_pCurrent : ProcessState(); }

ScopedLibraryState::ScopedLibraryState(LibraryState& state) : m_previous(t_pCurrent) {
  t_pCurrent = &state;
}

ScopedLibraryState::~ScopedLibraryState() { t_pCurrent = m_previous; }

}  // namespace capsule
