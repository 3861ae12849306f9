// The compressor's history area: what it keeps between calls, in the caller's memory.
//
// The area may lie at any address and is moved byte by byte, so the structure is packed and no
// member points into it. Pointers to the caller's buffers are kept only for the side that a call
// leaves unfinished.
#pragma once

#include <cstdint>

#include "capsule/compression/lzs_format.h"

namespace capsule::lzs {

inline constexpr uint32_t kHashSize = 2003;
inline constexpr uint32_t kHeadCount = 2004;
inline constexpr uint32_t kChainSize = 2048;
inline constexpr uint32_t kInputBufferSize = 4098;
inline constexpr uint32_t kCompressionAreaSize = 20377;
inline constexpr uint16_t kCompressionSignature = 0x4321;

static_assert(kChainSize == kMaxOffset + 1);
// Room for a full history, and for so much input behind it that the cursor can get a full history
// of the source itself behind it while five bytes can still be searched.
static_assert(kInputBufferSize == kMaxOffset + kMaxOffset + 4);

// Where the writing of the unit stands. The pieces of output are written in this order; when the
// destination fills, the phase tells what comes after the piece that filled it.
enum class WritePhase : uint8_t {
  Search,    // choose the next token
  Literals,  // the pending run, then the pending match if there is one
  Header,    // the match up to the first bits of its length
  Groups,    // the groups of a length of 8 and more
  Padding,   // the end marker is written, its last bytes are not
  Finished,  // only owed bytes are missing
};

enum class UnitState : uint8_t {
  Fresh,    // prepared, or a unit was completed without keeping its history
  Waiting,  // an open unit whose input is used up, or a kept history
  Paused,   // the destination was full
};

enum class SavedSide : uint8_t { None, Source, Destination };

// Small state, copied out of the area at the start of a call and back at its end.
struct CompressionState {
  const unsigned char* savedSource;  // first byte of the paused call's source
  unsigned char* savedDestination;   // next byte to write
  uint32_t savedSourceCount;         // all bytes of the paused call's source
  uint32_t savedDestinationCount;    // room from savedDestination
  uint32_t next;       // source bytes for which tokens are chosen; the search goes on there
  uint32_t position;   // of the byte at `next`
  uint32_t literals;   // pending: they lie in front of the pending match, else in front of `next`
  uint32_t matchRest;  // bytes of the pending match that no written code stands for yet
  uint32_t bits;       // output bits that do not fill a word yet, right-aligned
  uint32_t owed;       // bytes of a word the destination had no room for, left-aligned
  uint16_t matchOffset;
  uint16_t flags;         // of the last call
  uint16_t historyCount;  // bytes in front of the buffer that belong to earlier calls
  uint8_t bitCount;       // 0 to 31
  uint8_t owedCount;      // 0 to 4
  bool tablesAreClear;    // false: positions start anew and the heads are cleared
  bool isMarked;          // the chain says kNotEntered where a position in reach was not entered
  UnitState unit;
  WritePhase phase;
  SavedSide saved;
};

struct [[gnu::packed]] CompressionArea {
  uint32_t heads[kHeadCount];  // the latest position with that hash; 0: none
  uint16_t chain[kChainSize];  // by position modulo 2048: how far back the previous position with
                               // the same hash is; kOutOfReach if further than any match
  uint16_t signature;
  unsigned char state[sizeof(CompressionState)];
  unsigned char spare[kCompressionAreaSize - kInputBufferSize - 4 * kHeadCount - 2 * kChainSize -
                      2 - sizeof(CompressionState)];
  unsigned char buffer[kInputBufferSize];
};
static_assert(sizeof(CompressionArea) == kCompressionAreaSize && alignof(CompressionArea) == 1);

// Moves all positions down to below 4096, keeping what is in reach of the next one and the slots
// of the chain. Returns the new value of `position`.
uint32_t RebasePositions(CompressionArea& area, uint32_t position);

}  // namespace capsule::lzs
