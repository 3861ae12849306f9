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

class Random {
 public:
  explicit Random(uint64_t seed) : m_engine(seed) {}
  // 0 to `limit` - 1.
  uint32_t Below(uint32_t limit) { return static_cast<uint32_t>(m_engine() % limit); }
  bool Chance(uint32_t oneIn) { return Below(oneIn) == 0; }

 private:
  std::mt19937_64 m_engine;
};

// A history area of exactly the right size, at any address.
class MovingArea {
 public:
  MovingArea(uint32_t size, uint16_t (*init)(void*)) : m_nSize(size) {
    Allocate(1);
    init(m_pArea);
  }
  void Move(Random& random) {
    const unsigned char* old = m_pArea;
    const std::unique_ptr<unsigned char[]> keep = std::move(m_pMemory);
    Allocate(random.Below(16));
    std::memcpy(m_pArea, old, m_nSize);
    std::memset(keep.get(), 0xDB, m_nSize);
  }
  void* Get() { return m_pArea; }

 private:
  void Allocate(uint32_t shift) {
    m_pMemory = std::make_unique<unsigned char[]>(m_nSize + shift);
    m_pArea = m_pMemory.get() + shift;
    std::memset(m_pArea, 0xA5, m_nSize);
  }
  uint32_t m_nSize;
  std::unique_ptr<unsigned char[]> m_pMemory;
  unsigned char* m_pArea = nullptr;
};

// A buffer without a byte behind it, so that the address sanitizer sees a step too far.
class Buffer {
 public:
  Buffer() = default;
  explicit Buffer(const Bytes& bytes) : Buffer(static_cast<uint32_t>(bytes.size())) {
    if (!bytes.empty()) std::memcpy(m_pMemory.get(), bytes.data(), bytes.size());
  }
  explicit Buffer(uint32_t size) : m_pMemory(new unsigned char[size]), m_nSize(size) {}
  unsigned char* Data() { return m_pMemory.get(); }
  uint32_t Size() const { return m_nSize; }

 private:
  std::unique_ptr<unsigned char[]> m_pMemory;
  uint32_t m_nSize = 0;
};

}  // namespace capsule::test
