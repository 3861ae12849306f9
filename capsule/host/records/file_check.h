// What an index states about a file beside where it is.
#pragma once

#include <cstdint>

namespace capsule::host {

// The check value of a file: XXH3 of its record group and its data records as they are stored.
struct FileCheck {
  uint32_t offset = 0;  // where they begin in the image
  uint32_t length = 0;
  uint64_t value = 0;
};

// A place in a file where decoding may begin (restart_point.h).
struct RestartPoint {
  uint32_t record = 0;      // where the data block record begins in the image
  uint32_t fileOffset = 0;  // of its first byte in the file
  uint32_t history = 0;     // where what it may refer back to lies in the image
  uint16_t historyLength = 0;
};

}  // namespace capsule::host
