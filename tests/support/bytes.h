// Bytes spelled out in tests.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

#include "capsule/platform/little_endian.h"

namespace capsule::test {

// "16 01 00": three bytes.
inline std::string Hex(const std::string& text) {
  std::istringstream words(text);
  std::string bytes;
  for (std::string word; words >> word;) {
    bytes.push_back(static_cast<char>(std::stoi(word, nullptr, 16)));
  }
  return bytes;
}

inline std::string Zeros(size_t count) { return std::string(count, '\0'); }

inline const unsigned char* Unsigned(const std::string& bytes) {
  return static_cast<const unsigned char*>(static_cast<const void*>(bytes.data()));
}

inline uint8_t U8At(const std::string& bytes, size_t at) {
  return static_cast<uint8_t>(bytes.at(at));
}
inline uint16_t U16At(const std::string& bytes, size_t at) {
  return platform::LoadLe16(Unsigned(bytes.substr(at, 2)));
}
inline uint32_t U32At(const std::string& bytes, size_t at) {
  return platform::LoadLe32(Unsigned(bytes.substr(at, 4)));
}

}  // namespace capsule::test
