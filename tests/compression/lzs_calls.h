// Drives the codec the way its callers may: histories at odd addresses that move between calls,
// buffers that end where the last byte ends, and noise in the variables that a call ignores.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>

#include "capsule/compression/lzs.h"
#include "lzs_model.h"

namespace capsule::test {

// LzsCompress, or the decompressor with its parameters.
using LzsCodec = uint16_t (*)(const unsigned char**, unsigned char**, uint32_t*, uint32_t*, void*,
                              uint16_t, uint16_t);
inline uint16_t DecompressAsCodec(const unsigned char** source, unsigned char** dest,
                                  uint32_t* count, uint32_t* room, void* area, uint16_t flags,
                                  uint16_t) {
  return LzsDecompress(source, dest, count, room, area, flags);
}

class Random {
 public:
  explicit Random(uint64_t seed) : m_engine(seed) {}
  // 0 to `limit` - 1.
  uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(m_engine() % limit); }
  bool Chance(uint32_t oneIn) { return Below(oneIn) == 0; }
  unsigned char Byte(uint32_t limit = 256) { return static_cast<unsigned char>(Below(limit)); }

 private:
  std::mt19937_64 m_engine;
};

// A history area of exactly the right size, at any address.
class MovingArea {
 public:
  MovingArea(uint32_t size, uint16_t (*init)(void*)) : m_size(size), m_bytes(size + 1, 0xA5) {
    init(Get());
  }
  void Move(Random& random) {
    Bytes moved(m_size + random.Below(16), 0xA5);
    std::memcpy(moved.data() + (moved.size() - m_size), Get(), m_size);
    m_bytes.swap(moved);
    std::memset(moved.data(), 0xDB, moved.size());
  }
  void* Get() { return m_bytes.data() + (m_bytes.size() - m_size); }

 private:
  uint32_t m_size;
  Bytes m_bytes;
};

// A buffer without a byte behind it, so that the address sanitizer sees a step too far.
class Buffer {
 public:
  Buffer() = default;
  explicit Buffer(const Bytes& bytes) : Buffer(static_cast<uint32_t>(bytes.size())) {
    if (!bytes.empty()) std::memcpy(m_memory.get(), bytes.data(), bytes.size());
  }
  explicit Buffer(uint32_t size) : m_memory(new unsigned char[size]), m_size(size) {}
  unsigned char* Data() { return m_memory.get(); }
  uint32_t Size() const { return m_size; }

 private:
  std::unique_ptr<unsigned char[]> m_memory;
  uint32_t m_size = 0;
};

}  // namespace capsule::test
