#include "capsule/compression/processor.h"

#include <atomic>

namespace capsule::lzs {
namespace {

std::atomic<bool> g_isPortable = false;

}  // namespace

bool HasBmi2() {
#ifdef __x86_64__
  static const bool isThere = __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2");
  return isThere && !g_isPortable.load(std::memory_order_relaxed);
#else
  return false;
#endif
}

void UsePortableCode(bool isPortable) { g_isPortable = isPortable; }

}  // namespace capsule::lzs
