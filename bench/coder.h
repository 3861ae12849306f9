// A codec as the benchmark sees it: chunk by chunk, with one context that is used again.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace capsule::bench {

inline constexpr uint32_t kChunkSize = 8192;
inline constexpr uint32_t kChunkRoom = 2 * kChunkSize;

class Coder {
 public:
  virtual ~Coder() = default;
  // Before the first chunk of a series.
  virtual void BeginCompress() {}
  virtual void BeginDecompress() {}
  // Bytes written to `out`, which has kChunkRoom; 0 on failure.
  virtual uint32_t Compress(const unsigned char* chunk, uint32_t size, unsigned char* out) = 0;
  // Whether `out` got exactly `size` bytes.
  virtual bool Decompress(const unsigned char* coded, uint32_t codedSize, unsigned char* out,
                          uint32_t size) = 0;
};

struct CoderKind {
  std::string name;
  std::unique_ptr<Coder> (*make)(int level);
  int level;
  bool isPeer;
  bool decodes;  // whether its decompressor is measured too
};

const std::vector<CoderKind>& AllCoders();

}  // namespace capsule::bench
