// Whether a file is worth compressing, decided from its content alone: so that it is the same
// wherever and beside whatever it lies. Samples may err: what they call worth it is stored all the
// same when it has not got smaller; what would have got smaller where no sample was is not.
#pragma once

#include <cstdint>
#include <functional>
#include <span>

#include "capsule/compression/stream_compressor.h"

namespace capsule::host {

// Files up to this size are compressed to find out; of longer ones samples are.
inline constexpr uint64_t kComparedWhole = uint64_t{128} << 10;

// Reads bytes of a file; false when they cannot be had.
using ReadBytes = std::function<bool(uint64_t offset, std::span<unsigned char> out)>;

// Whether samples that are spread over a file of `size` bytes, more than kComparedWhole, shrink at
// `level`, 1 to 9. True also when they cannot be read. Leaves `compressor` to be reset.
bool SamplesShrink(const ReadBytes& read, uint64_t size, int level, StreamCompressor& compressor);

}  // namespace capsule::host
