// Makes operator new fail on demand, in test programs that use it.
#pragma once

namespace capsule::test {

// From construction to destruction, on this thread: `before` allocations succeed, the one behind
// them fails, those after it succeed again.
class FailingAllocation {
 public:
  explicit FailingAllocation(int before);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;
};

// Whether an allocation failed since the last FailingAllocation began.
bool HasAllocationFailed();

// How many allocations this thread has asked for.
int CountAllocations();

// Calls `attempt` with a function that runs what it is given while the first allocation fails, then
// with one where the second fails, and so on, until none is left to fail. How many failed.
template <typename Attempt>
int FailEachAllocation(Attempt attempt) {
  for (int failures = 0;; ++failures) {
    attempt([failures](auto call) {
      const FailingAllocation failing(failures);
      return call();
    });
    if (!HasAllocationFailed()) return failures;
  }
}

}  // namespace capsule::test
