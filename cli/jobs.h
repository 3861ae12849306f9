// The option of commands that work with many threads.
#pragma once

#include <algorithm>
#include <cstdint>

#include "cli/command.h"

namespace capsule::cli {

inline void AddJobsOption(Arguments& command, uint64_t& jobs, const char* help) {
  command.Number("-j,--jobs", jobs, help);
}

// What a host gets for the number given.
inline int Jobs(uint64_t given) {
  constexpr uint64_t kMost = 1024;
  return static_cast<int>(std::min(given, kMost));
}

}  // namespace capsule::cli
