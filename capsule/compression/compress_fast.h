// The compressor's inner loop: search and write without a check per token.
//
// Contract. On entry the call's writer stands at the start of a word. The loop goes on while the
// cursor is below `stop` and the destination has kFastRoom bytes left; it never writes within the
// last bytes of that room that a word and a half of codes could need. A token takes at most
// kMaxHeaderBits and one group, is added to less than a byte of left-over bits, and is stored as
// eight bytes of which the unused rest is overwritten by the next store. A match whose further
// groups do not surely fit is handed back unwritten.
#pragma once

#include <cstdint>

#include "capsule/compression/bit_writer.h"
#include "capsule/compression/compression_area.h"
#include "capsule/compression/triple_search.h"

namespace capsule::lzs {

struct FastCompression {
  SearchWindow window;
  uint32_t next;  // source index of the cursor; stop: where the search ends
  uint32_t stop;
  uint32_t position;  // of the cursor
  uint32_t history;   // bytes before the source that may be referred to
  unsigned char* out;
  const unsigned char* outLimit;
  uint32_t bits;  // right-aligned, bitCount (below 32) of them
  unsigned bitCount;
  TripleIndex* triples;  // searches by it if there is one; with LzsIndexMatchBodies only
  Match unwritten;       // length 0: none; `next` and `position` are behind it
};

void CompressFast(CompressionArea& area, FastCompression& run, uint16_t flags, uint32_t effort);

}  // namespace capsule::lzs
