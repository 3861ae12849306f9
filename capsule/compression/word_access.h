// Loads and stores of whole words at any address, in a fixed byte order. Callers have checked the
// bounds.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace capsule::lzs {

inline constexpr bool kLittleEndianHost = std::endian::native == std::endian::little;

inline uint64_t LoadBig64(const unsigned char* p) {
  uint64_t value;
  std::memcpy(&value, p, sizeof value);
  return kLittleEndianHost ? __builtin_bswap64(value) : value;
}

inline void StoreBig64(unsigned char* p, uint64_t value) {
  if (kLittleEndianHost) value = __builtin_bswap64(value);
  std::memcpy(p, &value, sizeof value);
}

// Little-endian, so that the first of two unequal bytes is the lowest of their difference.
inline uint32_t LoadLittle32(const unsigned char* p) {
  uint32_t value;
  std::memcpy(&value, p, sizeof value);
  return kLittleEndianHost ? value : __builtin_bswap32(value);
}

inline uint64_t LoadLittle64(const unsigned char* p) {
  uint64_t value;
  std::memcpy(&value, p, sizeof value);
  return kLittleEndianHost ? value : __builtin_bswap64(value);
}

}  // namespace capsule::lzs
