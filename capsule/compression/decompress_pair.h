// Two series of units decoded side by side, on one thread. Decoding waits for the way from each
// token to the next, so a second series costs less than on its own.
#pragma once

#include <cstdint>
#include <span>

namespace capsule::lzs {

// The handles of LzsDecompress, and what it says.
struct DecompressHandles {
  const unsigned char* source;
  unsigned char* destination;
  uint32_t sourceCount;
  uint32_t destinationCount;
  void* history;
  uint16_t result;
};

// As LzsDecompress with LzsKeepHistory for each of `a`, in this order, and each of `b`: neither
// series sees anything of the other, whose histories and destinations are others. A series ends
// behind the first call that `goesOn` says no of; what follows stays as it is.
void DecompressPair(std::span<DecompressHandles> a, std::span<DecompressHandles> b,
                    bool (*goesOn)(const DecompressHandles&));

}  // namespace capsule::lzs
