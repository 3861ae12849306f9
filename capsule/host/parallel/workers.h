// How many threads an operation takes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <thread>

namespace capsule::host {

// `jobs`: what the host wants; 0 for as many as there are processors. No
// more than 1024, whatever is wanted.
inline size_t WorkersFor(int jobs) {
  constexpr size_t kMost = 1024;
  if (jobs > 0) return std::min(static_cast<size_t>(jobs), kMost);
  return std::max(std::thread::hardware_concurrency(), 1U);
}

}  // namespace capsule::host
