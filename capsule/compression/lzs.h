// The LZS codec: a compressor and a decompressor over caller memory.
//
// Both are called any number of times on arbitrary pieces of input and output. What must survive
// between calls lives in a history area that the caller owns: raw memory of a fixed size, at any
// address, which may be copied byte by byte between calls. Nothing is allocated.
//
// A unit is one complete stream with its end marker. With LzsKeepHistory the next unit may refer
// back into the last 2047 bytes before it, so such units are decoded in the order in which they
// were compressed, with one history.
//
// The four handles (source and destination pointer and count) are passed by address. A side that a
// call finishes is advanced; a side that it does not finish is given back as it came, and the next
// call goes on from the position kept in the history area, whatever is passed for that side. So
// the memory behind an unfinished side stays the codec's until that side is finished. The source is
// finished with LzsInputUsedUp or LzsUnitComplete, the destination with LzsOutputFull or
// LzsUnitComplete. A caller goes round until LzsUnitComplete, with new input after LzsInputUsedUp
// and new room after LzsOutputFull:
//
//   uint16_t result = LzsInputUsedUp | LzsOutputFull;
//   while ((result & LzsUnitComplete) == 0) {
//     if ((result & LzsInputUsedUp) != 0) { source = NextInput(&sourceCount, &flags); }
//     if ((result & LzsOutputFull) != 0) { destination = NextRoom(&destinationCount); }
//     result = LzsCompress(&source, &destination, &sourceCount, &destinationCount, history, flags,
//                          effort);
//     if (result == 0) return false;
//   }
//
// Nothing is written outside the room offered. Bytes of it behind those reported as written may
// change. Different histories may be used on different threads at once.
#pragma once

#include <cstdint>

#include "capsule/export.h"

namespace capsule {

// Result bits. 0 means the call was refused, or the input is corrupt, and nothing was done.
inline constexpr uint16_t LzsInputUsedUp = 0x01;
inline constexpr uint16_t LzsOutputFull = 0x02;
inline constexpr uint16_t LzsUnitComplete = 0x04;

// Flags of LzsCompress.
inline constexpr uint16_t LzsEndOfInput = 0x01;         // this source ends the unit
inline constexpr uint16_t LzsCloseOnFullOutput = 0x02;  // end the unit where the output is full
inline constexpr uint16_t LzsKeepHistory = 0x04;        // both: the next unit may refer back
inline constexpr uint16_t LzsIndexMatchEnds = 0x08;     // index the last byte of each match
inline constexpr uint16_t LzsIndexMatchBodies = 0x10;   // index every byte of each match

// Flag of LzsDecompress beside LzsKeepHistory: the source is plain bytes for output and history.
inline constexpr uint16_t LzsStoredBlock = 0x02;

// Bytes of a history area: 20377 and 4160.
CAPSULE_API uint16_t LzsSizeOfCompressionHistory();
CAPSULE_API uint16_t LzsSizeOfDecompressionHistory();

// Prepare an area, which need not be cleared first. The result is 1; 0 without an area.
CAPSULE_API uint16_t LzsInitCompressionHistory(void* history);
CAPSULE_API uint16_t LzsInitDecompressionHistory(void* history);

// Compresses. `effort`: how many further candidates each phase of a search looks at; the low 8 bits
// count.
//
// Refused with 0, and without any effect: a null handle or area; an unknown flag; an area that was
// not prepared; a new destination of less than 16 bytes, unless a unit is open or a history kept (a
// call that was paused with LzsEndOfInput still wants 16); LzsEndOfInput changed while the source,
// or LzsCloseOnFullOutput changed while the destination is unfinished.
//
// When the destination fills, the call pauses with LzsOutputFull and the bits go on in the next
// one. With LzsCloseOnFullOutput it ends the unit there (LzsOutputFull | LzsUnitComplete), takes
// the source back to the first byte that is not in it, and the next unit starts fresh.
CAPSULE_API uint16_t LzsCompress(const unsigned char** source, unsigned char** destination,
                                 uint32_t* sourceCount, uint32_t* destinationCount, void* history,
                                 uint16_t flags, uint16_t effort);

// Decompresses, at most up to the end of a unit; the source is left right behind it.
//
// Refused with 0, and without any effect: a null handle or area; an unknown flag; an area that was
// not prepared or is damaged; LzsStoredBlock with counts that differ or inside a unit. A match that
// refers back before the history, or 0 bytes, is corrupt: the result is 0, now and on every further
// call until the history is prepared again, and the handles stay; what lay before it may have been
// written.
//
// No input gives LzsInputUsedUp; on a fresh history nothing is taken over from such a call.
CAPSULE_API uint16_t LzsDecompress(const unsigned char** source, unsigned char** destination,
                                   uint32_t* sourceCount, uint32_t* destinationCount, void* history,
                                   uint16_t flags);

}  // namespace capsule
