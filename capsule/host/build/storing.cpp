#include "capsule/host/build/storing.h"

#include <algorithm>
#include <array>
#include <vector>

#include "capsule/blocks/record_encoder.h"

namespace capsule::host {
namespace {

// One chunk in so many bytes is a sample, within bounds.
constexpr uint64_t kSampled = uint64_t{128} << 10;
constexpr uint64_t kFewestSamples = 16;
constexpr uint64_t kMostSamples = 128;

}  // namespace

bool SamplesShrink(const ReadBytes& read, uint64_t size, int level, StreamCompressor& compressor) {
  const uint64_t samples = std::clamp(size / kSampled, kFewestSamples, kMostSamples);
  RecordEncoder encoder(compressor, level);
  std::array<unsigned char, kChunkSize> sample;
  std::vector<unsigned char> records;
  for (uint64_t i = 0; i < samples; ++i) {
    const uint64_t offset = (size - kChunkSize) * i / (samples - 1) / kChunkSize * kChunkSize;
    if (!read(offset, sample)) return true;
    compressor.ResetCompressionHistory();
    if (!encoder.Append(sample, false, &records)) return false;
  }
  return records.size() < samples * kChunkSize;
}

}  // namespace capsule::host
