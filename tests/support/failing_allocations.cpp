#include "tests/support/failing_allocations.h"

#include <cstdlib>
#include <new>

namespace {

constexpr int kNever = -1;
thread_local int t_nBefore = kNever;  // allocations that succeed before one fails
thread_local bool t_bFailed = false;
thread_local int t_nAllocations = 0;

void* Allocate(size_t size) noexcept {
  ++t_nAllocations;
  if (t_nBefore == 0) {
    t_nBefore = kNever;
    t_bFailed = true;
    return nullptr;
  }
  if (t_nBefore > 0) --t_nBefore;
  return std::malloc(size == 0 ? 1 : size);
}

void* AllocateOrThrow(size_t size) {
  void* memory = Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(size_t size) { return AllocateOrThrow(size); }
void* operator new[](size_t size) { return AllocateOrThrow(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace capsule::test {

FailingAllocation::FailingAllocation(int before) {
  t_bFailed = false;
  t_nBefore = before;
}

FailingAllocation::~FailingAllocation() { t_nBefore = kNever; }

bool HasAllocationFailed() { return t_bFailed; }

int CountAllocations() { return t_nAllocations; }

}  // namespace capsule::test
