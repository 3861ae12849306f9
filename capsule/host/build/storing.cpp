#include "capsule/host/build/storing.h"

#include <array>
#include <vector>

#include "capsule/blocks/record_encoder.h"

namespace capsule::host {
namespace {

constexpr uint64_t kSamples = 16;
constexpr uint32_t kSampleSize = uint32_t{1} << 13;
static_assert(kSampleSize % kChunkSize == 0);

}  // namespace

bool SamplesShrink(const ReadBytes& read, uint64_t size, int level, StreamCompressor& compressor) {
  RecordEncoder encoder(compressor, level);
  std::array<unsigned char, kSampleSize> sample;
  std::vector<unsigned char> records;
  for (uint64_t i = 0; i < kSamples; ++i) {
    const uint64_t offset = (size - kSampleSize) * i / (kSamples - 1) / kChunkSize * kChunkSize;
    if (!read(offset, sample)) return true;
    compressor.ResetCompressionHistory();
    for (uint32_t at = 0; at < kSampleSize; at += kChunkSize) {
      if (!encoder.Append(std::span(sample).subspan(at, kChunkSize), false, &records)) return false;
    }
  }
  return records.size() < kSamples * kSampleSize;
}

}  // namespace capsule::host
