// CompressorState is what a StreamCompressor knows at the seam between two units, 20377 bytes.
//
// A long series of units can be compressed in spans side by side: who begins in the middle first
// compresses a few units before the span and throws them away. Whether that led to the same state
// is asked when the compressor of the span before arrives:
//
//   StreamCompressor earlier(16384, LzsKeepHistory, 0), later(16384, LzsKeepHistory, 0);
//   earlier.ResetCompressionHistory();
//   CompressorState guessed = later.State();
//   if (!earlier.State().GoesOnLike(guessed)) later.SetState(earlier.State());
#pragma once

#include <vector>

#include "capsule/export.h"

namespace capsule {

class CAPSULE_API CompressorState {
 public:
  // True: compressors in these two states write the same bits for the same further units, if flags,
  // effort and piece size are the same too. Of states that only might differ later it says false.
  // What no later unit can see is not compared: bytes, entries and links more than 2047 bytes back,
  // and where positions are counted from.
  bool GoesOnLike(const CompressorState& other) const;

 private:
  friend class StreamCompressor;
  CompressorState();

  std::vector<unsigned char> m_area;
};

}  // namespace capsule
