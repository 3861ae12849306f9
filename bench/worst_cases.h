// Inputs that cost the codec most for each byte.
#pragma once

#include <cstdint>
#include <vector>

namespace capsule::bench {

struct WorstInput {
  const char* name;
  std::vector<unsigned char> (*make)();
};

struct WorstUnit {
  std::vector<unsigned char> bytes;
  uint32_t plainSize;
};

struct WorstStream {
  const char* name;
  WorstUnit (*make)();
};

const std::vector<WorstInput>& WorstInputs();
const std::vector<WorstStream>& WorstStreams();

// How many candidates a search examines for each byte of the input; matches are indexed as the
// system does at that effort.
double ChainStepsPerByte(const std::vector<unsigned char>& plain, uint32_t effort);

}  // namespace capsule::bench
