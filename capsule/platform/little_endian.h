// Little-endian loads and stores at any address. Callers have checked the bounds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace capsule::platform {

template <typename Value>
Value LoadLe(const unsigned char* p) {
  const std::span<const unsigned char, sizeof(Value)> bytes(p, sizeof(Value));
  Value value = 0;
  for (size_t i = sizeof(Value); i-- > 0;) value = static_cast<Value>(value << 8 | bytes[i]);
  return value;
}

template <typename Value>
void StoreLe(unsigned char* p, Value value) {
  for (unsigned char& byte : std::span<unsigned char, sizeof(Value)>(p, sizeof(Value))) {
    byte = static_cast<unsigned char>(value);
    value = static_cast<Value>(value >> 8);
  }
}

inline uint16_t LoadLe16(const unsigned char* p) { return LoadLe<uint16_t>(p); }
inline uint32_t LoadLe32(const unsigned char* p) { return LoadLe<uint32_t>(p); }
inline uint64_t LoadLe64(const unsigned char* p) { return LoadLe<uint64_t>(p); }
inline void StoreLe16(unsigned char* p, uint16_t value) { StoreLe(p, value); }
inline void StoreLe32(unsigned char* p, uint32_t value) { StoreLe(p, value); }

}  // namespace capsule::platform
