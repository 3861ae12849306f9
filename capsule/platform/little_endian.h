// Little-endian loads and stores at any address. Callers have checked the bounds.
#pragma once

#include <cstdint>

namespace capsule::platform {

inline uint16_t LoadLe16(const unsigned char* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

inline uint32_t LoadLe32(const unsigned char* p) {
  return static_cast<uint32_t>(LoadLe16(p)) | (static_cast<uint32_t>(LoadLe16(p + 2)) << 16);
}

inline uint64_t LoadLe64(const unsigned char* p) {
  return static_cast<uint64_t>(LoadLe32(p)) | (static_cast<uint64_t>(LoadLe32(p + 4)) << 32);
}

inline void StoreLe16(unsigned char* p, uint16_t value) {
  p[0] = static_cast<unsigned char>(value);
  p[1] = static_cast<unsigned char>(value >> 8);
}

inline void StoreLe32(unsigned char* p, uint32_t value) {
  StoreLe16(p, static_cast<uint16_t>(value));
  StoreLe16(p + 2, static_cast<uint16_t>(value >> 16));
}

}  // namespace capsule::platform
