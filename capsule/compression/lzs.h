// The LZS codec: a compressor and a decompressor over caller memory.
//
// Both are called any number of times on arbitrary pieces of input and output. What must survive
// between calls lives in a history area that the caller owns: raw memory of a fixed size, at any
// address, which may be copied byte by byte between calls. Nothing is allocated.
//
// The four handles (source and destination pointer and count) are passed by address. A side that a
// call finishes is advanced; a side that it does not finish is given back as it came, and the next
// call goes on from the position kept in the history area, whatever is passed for that side.
// The source is finished with LzsInputUsedUp or LzsUnitComplete, the destination with
// LzsOutputFull or LzsUnitComplete.
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

// Prepare an area, which need not be cleared first. The result is always 1.
CAPSULE_API uint16_t LzsInitCompressionHistory(void* history);
CAPSULE_API uint16_t LzsInitDecompressionHistory(void* history);

// `effort`: 0 to 255, how many further candidates each phase of a search looks at.
CAPSULE_API uint16_t LzsCompress(const unsigned char** source, unsigned char** destination,
                                 uint32_t* sourceCount, uint32_t* destinationCount, void* history,
                                 uint16_t flags, uint16_t effort);

CAPSULE_API uint16_t LzsDecompress(const unsigned char** source, unsigned char** destination,
                                   uint32_t* sourceCount, uint32_t* destinationCount, void* history,
                                   uint16_t flags);

}  // namespace capsule
