// How many threads an operation takes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <thread>

namespace capsule::host {

// `jobs`: what the host wants; 0 for as many as there are processors.
inline size_t WorkersFor(int jobs) {
  if (jobs > 0) return static_cast<size_t>(jobs);
  return std::max(std::thread::hardware_concurrency(), 1U);
}

}  // namespace capsule::host
