// ByteReader walks bytes that came from a file without ever leaving them.
//
// Every take either succeeds or makes the reader fail for good: a failed reader yields zeros and
// empty spans, so a decoder may read all its fields first and ask Ok() once before it uses them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "capsule/platform/little_endian.h"

namespace capsule::platform {

class ByteReader {
 public:
  explicit ByteReader(std::span<const unsigned char> bytes) : m_bytes(bytes) {}

  bool Ok() const { return m_ok; }
  size_t Position() const { return m_position; }
  size_t Remaining() const { return m_bytes.size() - m_position; }

  // The next `count` bytes, or an empty span and a failed reader when fewer remain.
  std::span<const unsigned char> Take(size_t count) {
    if (!m_ok || count > Remaining()) {
      m_ok = false;
      return {};
    }
    const auto taken = m_bytes.subspan(m_position, count);
    m_position += count;
    return taken;
  }

  void Skip(size_t count) { Take(count); }
  uint8_t U8() {
    return Load<uint8_t, 1>([](const unsigned char* p) { return *p; });
  }
  uint16_t U16() { return Load<uint16_t, 2>(LoadLe16); }
  uint32_t U32() { return Load<uint32_t, 4>(LoadLe32); }
  uint64_t U64() { return Load<uint64_t, 8>(LoadLe64); }

  // A reader of the next `count` bytes alone, so that a nested structure cannot see its neighbour.
  ByteReader Sub(size_t count) {
    ByteReader sub(Take(count));
    sub.m_ok = m_ok;
    return sub;
  }

 private:
  template <typename Value, size_t Width, typename Loader>
  Value Load(Loader load) {
    const auto taken = Take(Width);
    return taken.size() == Width ? static_cast<Value>(load(taken.data())) : Value{0};
  }

  std::span<const unsigned char> m_bytes;
  size_t m_position = 0;
  bool m_ok = true;
};

}  // namespace capsule::platform
