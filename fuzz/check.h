// Require stops the process when a property does not hold, so that every fuzzer sees it.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace capsule::fuzz {

inline void Require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

}  // namespace capsule::fuzz
