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
  explicit ByteReader(std::span<const unsigned char> bytes) : m_Bytes(bytes) {}

  bool Ok() const { return m_bOk; }
  size_t Position() const { return m_nPosition; }
  size_t Remaining() const { return m_Bytes.size() - m_nPosition; }

  // The next `count` bytes, or an empty span and a failed reader when fewer remain.
  std::span<const unsigned char> Take(size_t count) {
    if (!m_bOk || count > Remaining()) {
      m_bOk = false;
      return {};
    }
    const auto taken = m_Bytes.subspan(m_nPosition, count);
    m_nPosition += count;
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
    sub.m_bOk = m_bOk;
    return sub;
  }

 private:
  template <typename Value, size_t Width, typename Loader>
  Value Load(Loader load) {
    const auto taken = Take(Width);
    return taken.size() == Width ? static_cast<Value>(load(taken.data())) : Value{0};
  }

  std::span<const unsigned char> m_Bytes;
  size_t m_nPosition = 0;
  bool m_bOk = true;
};

}  // namespace capsule::platform
